#include "refhost/fallback_file_channel.h"

#include <Poco/Exception.h>
#include <Poco/Message.h>

#include <cstdio>

CFallbackFileChannel::CFallbackFileChannel(std::string path) : path_(std::move(path)) {}

CFallbackFileChannel::~CFallbackFileChannel() { close(); }

void CFallbackFileChannel::close() {
  std::lock_guard<std::mutex> guard(lock_);
  if (file_) file_->close();
  file_ = nullptr;
}

void CFallbackFileChannel::log(const Poco::Message& message) {
  std::lock_guard<std::mutex> guard(lock_);
  if (!failed_ && !file_) {
    try {
      Poco::AutoPtr<Poco::FileChannel> file(new Poco::FileChannel(path_));
      file->setProperty("flush", "true");
      file->open();
      file_ = file;
    } catch (const Poco::Exception& e) {
      FallBack(e.displayText());
    }
  }
  if (file_) {
    try {
      file_->log(message);
      return;
    } catch (const Poco::Exception& e) {
      file_ = nullptr;
      FallBack(e.displayText());
    }
  }
  if (message.getPriority() <= Poco::Message::PRIO_WARNING) {
    if (!reason_.empty()) {
      std::fprintf(stderr, "signdb: cannot write the log %s (%s); its warnings and errors go here instead\n",
                   path_.c_str(), reason_.c_str());
      reason_.clear();
    }
    std::fprintf(stderr, "%s\n", message.getText().c_str());
  }
}

bool CFallbackFileChannel::fell_back() const {
  std::lock_guard<std::mutex> guard(lock_);
  return failed_;
}

void CFallbackFileChannel::FallBack(const std::string& reason) {
  failed_ = true;
  reason_ = reason;
}
