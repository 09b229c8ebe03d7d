#pragma once

#include <Poco/Net/Context.h>

#include <string>
#include <utility>
#include <vector>

// A ClickHouse server asked over its HTTP interface (POCO Net): one statement per request, in the
// URL's "query" parameter, with its data, when it has any, as the request's body. What a user
// gives (a path, a host name, a hash) never becomes statement text: it travels as the body of an
// INSERT or as a table of external data that the statement reads ("hashes" below).
class CClickHouseClient {
 public:
  // A table of external data: its rows as tab-separated text and the structure that names and
  // types its columns ("hash String").
  struct CTable {
    std::string name;
    std::string structure;
    std::string rows;  // TabSeparated: \t, \n and \\ escaped
  };

  // "url": http://HOST:PORT or https://HOST:PORT. "user" and "password" may be empty (the
  // server's default user). Over https the server's certificate must be valid for its host name
  // and signed by "ca_file" (PEM) or, without one, by a certificate authority the system trusts.
  CClickHouseClient(std::string url, std::string user, std::string password,
                    std::string ca_file = std::string());

  // Runs "statement" with "body" as its data; returns what the server answered. Throws
  // std::runtime_error naming the server and what it said (an error, a refusal) or why it could
  // not be reached.
  std::string Run(const std::string& statement, const std::string& body = std::string(),
                  const std::vector<CTable>& tables = {}) const;

  const std::string& url() const { return url_; }

  // A setting of the server's sent with every statement ("insert_distributed_sync", "1").
  void Set(const std::string& name, const std::string& value) {
    settings_.emplace_back(name, value);
  }

  // A text as a field of TabSeparated data (its escapes), and back.
  static std::string TabField(const std::string& text);
  static std::string FromTabField(const std::string& field);
  // The fields of one line of TabSeparated data, unescaped.
  static std::vector<std::string> TabFields(const std::string& line);
  // The same, as they are written (escapes kept): an array's field is read by ArrayItems.
  static std::vector<std::string> RawTabFields(const std::string& line);
  // The items of an array as a TabSeparated field writes it ("['a\\'b',[1,2]]"), each as it
  // is written: a quoted text, a number or an inner array. Throws std::runtime_error for a field
  // that is not an array.
  static std::vector<std::string> ArrayItems(const std::string& field);
  // A quoted text of an array ('a\'b'), unescaped. Throws std::runtime_error for another.
  static std::string UnquotedText(const std::string& item);

 private:
  std::string url_;
  std::string user_;
  std::string password_;
  std::vector<std::pair<std::string, std::string>> settings_;
  Poco::Net::Context::Ptr tls_;  // over https
};
