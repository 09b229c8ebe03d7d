#pragma once

#include <fstream>
#include <string>

#include <boost/filesystem.hpp>

// A fresh folder under the system's temporary directory, removed with everything in it.
class CTempDir {
 public:
  CTempDir()
      : path_(boost::filesystem::temp_directory_path() /
              boost::filesystem::unique_path("signdb-test-%%%%-%%%%-%%%%")) {
    boost::filesystem::create_directories(path_);
  }
  ~CTempDir() {
    boost::system::error_code ignored;
    boost::filesystem::remove_all(path_, ignored);
  }
  CTempDir(const CTempDir&) = delete;
  CTempDir& operator=(const CTempDir&) = delete;

  const boost::filesystem::path& path() const { return path_; }
  std::string operator/(const std::string& name) const { return (path_ / name).string(); }

  // Writes "content" to the file "name" (folders made as needed); returns its path.
  std::string Write(const std::string& name, const std::string& content) const {
    boost::filesystem::path file = path_ / name;
    boost::filesystem::create_directories(file.parent_path());
    std::ofstream(file.string(), std::ios::binary) << content;
    return file.string();
  }

  static std::string Read(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }

 private:
  boost::filesystem::path path_;
};
