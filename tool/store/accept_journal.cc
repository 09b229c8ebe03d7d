#include "tool/store/accept_journal.h"

#include <Poco/Dynamic/Var.h>
#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <system_error>

#include "refhost/crypto_service.h"
#include "refhost/file_descriptor.h"
#include "refhost/file_io.h"
#include "tool/store/database_files.h"
#include "util/account_names.h"
#include "util/json_line.h"
#include "util/text_conversion.h"
#include "util/text_format.h"

namespace {

constexpr uint32_t kSha256 = 256;
constexpr uint64_t kLongestJournal = 256ull << 20;

std::string LineHash(const std::string& line) {
  return HashBytes(line.data(), line.size(), kSha256);
}

// A name under "key", and its exact bytes under "key_hex" when it is not valid UTF-8.
void PutName(CJsonLine& line, const std::string& key, const std::string& name) {
  line.String(key, name);
  if (!IsValidUtf8(name)) {
    line.String(key + "_hex", HexText(reinterpret_cast<const uint8_t*>(name.data()), name.size()));
  }
}

std::string BytesOfHex(const std::string& hex) {
  if (hex.size() % 2 != 0) throw std::runtime_error("a name in hexadecimal of odd length");
  std::string bytes;
  for (size_t i = 0; i < hex.size(); i += 2) {
    bytes.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

std::string NameOf(const Poco::JSON::Object::Ptr& object, const std::string& key) {
  if (object->has(key + "_hex")) return BytesOfHex(object->getValue<std::string>(key + "_hex"));
  return object->optValue<std::string>(key, "");
}

std::string EntryLine(const CJournalEntry& entry, const std::string& prev) {
  CJsonLine line;
  line.Open().Number("seq", entry.sequence).String("prev", prev).String("time", entry.time);
  line.String("event", entry.event);
  PutName(line, "policy", entry.policy);
  line.String("revision", entry.revision == 0 ? std::string() : RevisionText(entry.revision));
  line.Open("who").Number("uid", entry.who.uid);
  PutName(line, "user", entry.who.user);
  PutName(line, "login", entry.who.login);
  PutName(line, "terminal", entry.who.terminal);
  line.Close();
  PutName(line, "command", entry.command);
  PutName(line, "note", entry.note);
  line.OpenArray("changes");
  for (const CJournalChange& change : entry.changes) {
    line.Open();
    PutName(line, "path", change.path);
    line.String("change", change.change);
    if (!change.from.empty()) PutName(line, "from", change.from);
    line.String("old_hash", change.old_hash).String("new_hash", change.new_hash).Close();
  }
  return line.Close().Close().Take();
}

CJournalEntry EntryOf(const Poco::JSON::Object::Ptr& object) {
  CJournalEntry entry;
  entry.sequence = object->getValue<uint64_t>("seq");
  entry.time = object->optValue<std::string>("time", "");
  entry.event = object->optValue<std::string>("event", "");
  entry.policy = NameOf(object, "policy");
  std::string revision = object->optValue<std::string>("revision", "");
  entry.revision = revision.empty() ? 0 : std::stoull(revision, nullptr, 16);
  if (Poco::JSON::Object::Ptr who = object->getObject("who")) {
    entry.who.uid = who->optValue<uint64_t>("uid", 0);
    entry.who.user = NameOf(who, "user");
    entry.who.login = NameOf(who, "login");
    entry.who.terminal = NameOf(who, "terminal");
  }
  entry.command = NameOf(object, "command");
  entry.note = NameOf(object, "note");
  if (Poco::JSON::Array::Ptr changes = object->getArray("changes")) {
    for (size_t i = 0; i < changes->size(); ++i) {
      Poco::JSON::Object::Ptr item = changes->getObject(static_cast<unsigned>(i));
      if (!item) throw std::runtime_error("a change that is not an object");
      entry.changes.push_back(
          CJournalChange{NameOf(item, "path"), item->optValue<std::string>("change", ""),
                         NameOf(item, "from"), item->optValue<std::string>("old_hash", ""),
                         item->optValue<std::string>("new_hash", "")});
    }
  }
  return entry;
}

Poco::JSON::Object::Ptr ParsedLine(const std::string& line) {
  Poco::JSON::Object::Ptr object;
  try {
    object = Poco::JSON::Parser().parse(line).extract<Poco::JSON::Object::Ptr>();
  } catch (const std::exception&) {
  }
  return object;
}

}  // namespace

CJournalActor CJournalActor::Current() {
  CJournalActor actor;
  actor.uid = ::geteuid();
  actor.user = UserNameOf(std::to_string(actor.uid));
  if (const char* login = std::getenv("SUDO_USER")) actor.login = login;
  if (const char* terminal = ::ttyname(STDIN_FILENO)) actor.terminal = terminal;
  return actor;
}

std::vector<std::string> CAcceptJournal::CheckedLines(std::vector<CJournalHead>* heads,
                                                      uint64_t* whole_bytes) const {
  struct stat status {};
  if (whole_bytes) *whole_bytes = 0;
  if (::lstat(path_.c_str(), &status) != 0) {
    if (errno == ENOENT) return {};
    throw std::runtime_error("cannot read the journal " + path_ + ": " + std::strerror(errno));
  }
  std::vector<uint8_t> bytes = ReadWholeFile(path_, kLongestJournal);
  return ChainedLines(std::string(bytes.begin(), bytes.end()), heads, whole_bytes);
}

std::vector<std::string> CAcceptJournal::ChainedLines(std::string text,
                                                      std::vector<CJournalHead>* heads,
                                                      uint64_t* whole_bytes) const {
  // A line is appended and synced before any binding records it: a last line cut short (the
  // machine stopped while it was written) was never recorded, and is not an entry.
  size_t last_newline = text.rfind('\n');
  text.erase(last_newline == std::string::npos ? 0 : last_newline + 1);
  if (whole_bytes) *whole_bytes = text.size();
  std::vector<std::string> lines;
  std::string prev;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    std::string line = text.substr(start, end - start);
    start = end + 1;
    size_t number = lines.size() + 1;
    Poco::JSON::Object::Ptr object = ParsedLine(line);
    if (object.isNull() || object->optValue<uint64_t>("seq", 0) != number ||
        object->optValue<std::string>("prev", "-") != prev) {
      throw std::runtime_error("the journal " + path_ + " is broken at line " +
                               std::to_string(number) +
                               ": it does not follow the line before it (edited, cut or put "
                               "together from other journals)");
    }
    prev = LineHash(line);
    lines.push_back(std::move(line));
    if (heads) heads->push_back(CJournalHead{lines.size(), prev});
  }
  return lines;
}

CJournalHead CAcceptJournal::Append(CJournalEntry& entry) {
  bool created = ::access(path_.c_str(), F_OK) != 0;
  CFileDescriptor fd(
      ::open(path_.c_str(), O_RDWR | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!fd.valid()) {
    throw std::runtime_error("cannot append to the journal " + path_ + ": " + std::strerror(errno));
  }
  // Two appenders (an update and the watch service, say) take turns: each reads the line it
  // follows and writes its own while the other waits.
  while (::flock(fd.get(), LOCK_EX) != 0) {
    if (errno != EINTR) {
      throw std::runtime_error("cannot lock the journal " + path_ + ": " + std::strerror(errno));
    }
  }
  std::string text;
  char buffer[65536];
  for (ssize_t length;
       (length = ::pread(fd.get(), buffer, sizeof buffer, static_cast<off_t>(text.size()))) != 0;) {
    if (length < 0) {
      if (errno == EINTR) continue;
      throw std::runtime_error("cannot read the journal " + path_ + ": " + std::strerror(errno));
    }
    text.append(buffer, static_cast<size_t>(length));
    if (text.size() > kLongestJournal)
      throw std::runtime_error("the journal " + path_ + " is larger than it can be");
  }
  std::vector<CJournalHead> heads;
  uint64_t whole = 0;
  ChainedLines(std::move(text), &heads, &whole);
  entry.sequence = heads.size() + 1;
  if (entry.time.empty()) {
    auto now = std::chrono::system_clock::now().time_since_epoch();
    entry.time = IsoMillisecondsText(
        static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count()));
  }
  std::string line = EntryLine(entry, heads.empty() ? std::string() : heads.back().hash);
  std::string written = line + "\n";
  // A line cut short before goes; a line this cannot write whole (a full disk) goes too: the
  // journal holds whole lines only.
  errno = 0;
  if (::ftruncate(fd.get(), static_cast<off_t>(whole)) != 0 ||
      ::write(fd.get(), written.data(), written.size()) != static_cast<ssize_t>(written.size()) ||
      ::fsync(fd.get()) != 0) {
    int error = errno != 0 ? errno : ENOSPC;  // a short write sets no error
    if (::ftruncate(fd.get(), static_cast<off_t>(whole)) != 0) {
      // What is left past the last whole line is not an entry (see ChainedLines).
    }
    throw std::system_error(error, std::generic_category(),
                            "cannot append to the journal " + path_);
  }
  if (created) SyncDirectoryOf(path_);
  return CJournalHead{entry.sequence, LineHash(line)};
}

std::vector<CJournalEntry> CAcceptJournal::Read() const {
  std::vector<CJournalEntry> entries;
  for (const std::string& line : CheckedLines(nullptr, nullptr)) {
    try {
      entries.push_back(EntryOf(ParsedLine(line)));
    } catch (const std::exception& e) {
      throw std::runtime_error("the journal " + path_ + " has an entry that cannot be read (line " +
                               std::to_string(entries.size() + 1) + "): " + e.what());
    }
  }
  return entries;
}

CJournalHead CAcceptJournal::Head() const {
  std::vector<CJournalHead> heads;
  CheckedLines(&heads, nullptr);
  return heads.empty() ? CJournalHead{} : heads.back();
}

std::string CAcceptJournal::Mismatch(const CJournalHead& expected) const {
  if (expected.entries == 0) return std::string();
  std::vector<CJournalHead> heads;
  try {
    CheckedLines(&heads, nullptr);
  } catch (const std::exception& e) {
    return e.what();
  }
  if (heads.empty()) return "the journal " + path_ + " is missing";
  if (heads.size() < expected.entries) {
    return "the journal " + path_ + " holds " + std::to_string(heads.size()) +
           " entries where the baseline was saved after entry " + std::to_string(expected.entries) +
           " (entries were cut)";
  }
  if (heads[expected.entries - 1].hash != expected.hash) {
    return "the journal " + path_ + " is not the one the baseline was saved with (entry " +
           std::to_string(expected.entries) + " differs)";
  }
  return std::string();
}
