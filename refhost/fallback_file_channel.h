#pragma once

#include <mutex>
#include <string>

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/FileChannel.h>

// A log file opened when the first message arrives, not before: a run that only reads (a check
// of a database kept on read-only media) never needs to write it. When the file cannot be opened
// or written, its warnings and errors go to the standard error instead, the first of them after
// one line that says why; the informational lines of a read-only run are dropped without a word.
// Nothing that matters is lost in silence and nothing fails for it. Thread-safe.
class CFallbackFileChannel : public Poco::Channel {
 public:
  explicit CFallbackFileChannel(std::string path);

  void open() override {}  // opened by the first message
  void close() override;
  void log(const Poco::Message& message) override;

  // True once the file could not be opened or written (for tests).
  bool fell_back() const;

 protected:
  ~CFallbackFileChannel() override;

 private:
  // Called with lock_ held: from now on, warnings and errors go to the standard error.
  void FallBack(const std::string& reason);

  const std::string path_;
  mutable std::mutex lock_;
  Poco::AutoPtr<Poco::FileChannel> file_;  // guarded by lock_; null until opened
  bool failed_ = false;                    // guarded by lock_
  std::string reason_;                     // guarded by lock_; why, until said on the first warning
};
