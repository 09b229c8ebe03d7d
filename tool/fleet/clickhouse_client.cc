#include "tool/fleet/clickhouse_client.h"

#include <Poco/Net/HTMLForm.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/HTTPSClientSession.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/PartSource.h>
#include <Poco/Net/StringPartSource.h>
#include <Poco/StreamCopier.h>
#include <Poco/URI.h>

#include <memory>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "util/safe_text.h"

CClickHouseClient::CClickHouseClient(std::string url, std::string user, std::string password,
                                     std::string ca_file)
    : url_(std::move(url)), user_(std::move(user)), password_(std::move(password)) {
  Poco::URI uri;
  try {
    uri = Poco::URI(url_);
  } catch (const Poco::Exception& e) {
    throw std::runtime_error("the fleet store's url '" + url_ + "' is not one: " + e.message());
  }
  if ((uri.getScheme() != "http" && uri.getScheme() != "https") || uri.getHost().empty()) {
    throw std::runtime_error("the fleet store's url '" + url_ +
                             "' is not http://HOST:PORT or https://HOST:PORT");
  }
  if (uri.getScheme() == "https") {
    try {
      // Strict: the chain must lead to the given (or the system's) authorities and the
      // certificate must name the host; nothing is accepted that fails either.
      tls_ = new Poco::Net::Context(Poco::Net::Context::TLS_CLIENT_USE, "", "", ca_file,
                                    Poco::Net::Context::VERIFY_STRICT, 9, ca_file.empty());
    } catch (const Poco::Exception& e) {
      throw std::runtime_error("cannot use the fleet store's certificate authority " + ca_file +
                               ": " + e.displayText());
    }
  }
}

std::string CClickHouseClient::TabField(const std::string& text) {
  std::string field;
  field.reserve(text.size());
  for (char c : text) {
    switch (c) {
      case '\t':
        field += "\\t";
        break;
      case '\n':
        field += "\\n";
        break;
      case '\r':
        field += "\\r";
        break;
      case '\0':
        field += "\\0";
        break;
      case '\\':
        field += "\\\\";
        break;
      default:
        field += c;
    }
  }
  return field;
}

std::string CClickHouseClient::FromTabField(const std::string& field) {
  std::string text;
  text.reserve(field.size());
  for (size_t i = 0; i < field.size(); ++i) {
    if (field[i] != '\\' || i + 1 == field.size()) {
      text += field[i];
      continue;
    }
    char next = field[++i];
    switch (next) {
      case 't':
        text += '\t';
        break;
      case 'n':
        text += '\n';
        break;
      case 'r':
        text += '\r';
        break;
      case 'b':
        text += '\b';
        break;
      case 'f':
        text += '\f';
        break;
      case '0':
        text += '\0';
        break;
      default:
        text += next;  // \\, \', and whatever else stands for itself
    }
  }
  return text;
}

std::vector<std::string> CClickHouseClient::TabFields(const std::string& line) {
  std::vector<std::string> fields = RawTabFields(line);
  for (std::string& field : fields) field = FromTabField(field);
  return fields;
}

std::vector<std::string> CClickHouseClient::RawTabFields(const std::string& line) {
  std::vector<std::string> fields;
  size_t start = 0;
  for (;;) {
    size_t tab = line.find('\t', start);
    fields.push_back(line.substr(start, tab == std::string::npos ? tab : tab - start));
    if (tab == std::string::npos) return fields;
    start = tab + 1;
  }
}

std::vector<std::string> CClickHouseClient::ArrayItems(const std::string& field) {
  auto refuse = [&] {
    return std::runtime_error("the fleet store answered '" + EscapedText(field.substr(0, 60)) +
                              "' where an array was asked for");
  };
  if (field.size() < 2 || field.front() != '[' || field.back() != ']') throw refuse();
  std::vector<std::string> items;
  if (field.size() == 2) return items;
  size_t start = 1;
  int depth = 0;
  bool quoted = false;
  for (size_t i = 1; i + 1 < field.size(); ++i) {
    char c = field[i];
    if (quoted) {
      if (c == '\\') {
        ++i;  // the escaped character stands for itself here
      } else if (c == '\'') {
        quoted = false;
      }
      continue;
    }
    if (c == '\'') {
      quoted = true;
    } else if (c == '[' || c == '(') {
      ++depth;
    } else if (c == ']' || c == ')') {
      if (--depth < 0) throw refuse();
    } else if (c == ',' && depth == 0) {
      items.push_back(field.substr(start, i - start));
      start = i + 1;
    }
  }
  if (quoted || depth != 0) throw refuse();
  items.push_back(field.substr(start, field.size() - 1 - start));
  return items;
}

std::string CClickHouseClient::UnquotedText(const std::string& item) {
  // Every quote inside is escaped, and the last one closes the text.
  bool whole = item.size() >= 2 && item.front() == '\'' && item.back() == '\'';
  for (size_t i = 1; whole && i + 1 < item.size(); ++i) {
    if (item[i] == '\\') {
      whole = ++i + 1 < item.size();
    } else {
      whole = item[i] != '\'';
    }
  }
  if (!whole) {
    throw std::runtime_error("the fleet store answered '" + EscapedText(item.substr(0, 60)) +
                             "' where a quoted text was asked for");
  }
  return FromTabField(item.substr(1, item.size() - 2));
}

std::string CClickHouseClient::Run(const std::string& statement, const std::string& body,
                                   const std::vector<CTable>& tables) const {
  Poco::URI uri(url_);
  uri.setPath("/");
  uri.addQueryParameter("query", statement);
  for (const auto& [name, value] : settings_) uri.addQueryParameter(name, value);
  for (const CTable& table : tables)
    uri.addQueryParameter(table.name + "_structure", table.structure);
  std::unique_ptr<Poco::Net::HTTPClientSession> session;
  if (tls_) {
    session = std::make_unique<Poco::Net::HTTPSClientSession>(uri.getHost(), uri.getPort(), tls_);
  } else {
    session = std::make_unique<Poco::Net::HTTPClientSession>(uri.getHost(), uri.getPort());
  }
  session->setTimeout(Poco::Timespan(60, 0));
  Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_POST, uri.getPathAndQuery(),
                                 Poco::Net::HTTPMessage::HTTP_1_1);
  if (!user_.empty()) request.set("X-ClickHouse-User", user_);
  if (!password_.empty()) request.set("X-ClickHouse-Key", password_);
  std::string answer;
  try {
    if (tables.empty()) {
      request.setContentLength(static_cast<std::streamsize>(body.size()));
      request.setContentType("text/plain; charset=utf-8");
      session->sendRequest(request) << body;
    } else {
      // External data: each table a part of a multipart form, named as the statement reads it.
      Poco::Net::HTMLForm form(Poco::Net::HTMLForm::ENCODING_MULTIPART);
      for (const CTable& table : tables) {
        form.addPart(table.name,
                     new Poco::Net::StringPartSource(table.rows, "text/plain", table.name));
      }
      form.prepareSubmit(request);
      form.write(session->sendRequest(request));
    }
    Poco::Net::HTTPResponse response;
    std::istream& in = session->receiveResponse(response);
    std::ostringstream text;
    Poco::StreamCopier::copyStream(in, text);
    answer = text.str();
    if (response.getStatus() != Poco::Net::HTTPResponse::HTTP_OK) {
      std::string first = answer.substr(0, answer.find('\n'));
      throw std::runtime_error("the fleet store at " + url_ + " refused a request (HTTP " +
                               std::to_string(static_cast<int>(response.getStatus())) +
                               "): " + EscapedText(first.substr(0, 500)));
    }
  } catch (const Poco::Exception& e) {
    throw std::runtime_error("cannot reach the fleet store at " + url_ + ": " + e.displayText());
  }
  return answer;
}
