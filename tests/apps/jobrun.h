// Test helpers: a scratch folder of its own per test, and the host application run the way a user
// runs it (exit status, standard output, standard error).
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

// Expects `part` in `text`, showing the whole text when it is not there.
#define EXPECT_HAS(text, part) EXPECT_NE((text).find(part), std::string::npos) << (text)

namespace tarni::host::jobtest {

namespace fs = std::filesystem;

inline std::string ReadText(const fs::path& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// A folder under the system's temporary folder, removed with everything in it at the end.
class ScratchDir {
 public:
  explicit ScratchDir(const std::string& tag) {
    static int counter = 0;
    _path = fs::temp_directory_path() /
            ("tarni-" + tag + "-" + std::to_string(::getpid()) + "-" + std::to_string(++counter));
    fs::remove_all(_path);
    fs::create_directories(_path);
  }
  ~ScratchDir() {
    std::error_code ignored;
    fs::remove_all(_path, ignored);
  }
  const fs::path& path() const { return _path; }
  std::string PathOf(const std::string& name) const { return (_path / name).string(); }
  // `'<path>'`, ready for a shell command line.
  std::string Quoted(const std::string& name) const { return "'" + PathOf(name) + "'"; }
  void WriteText(const std::string& name, const std::string& text) const {
    std::ofstream(PathOf(name)) << text;
  }
  // The names of the entries, sorted: what a job left behind (outputs, temporaries).
  std::vector<std::string> Files() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(_path))
      names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
  }

 private:
  fs::path _path;
};

struct JobRun {
  int status = -1;
  std::string out;
  std::string err;
};

// Runs the host application with `arguments` (already quoted for the shell), catching its
// output in files of `dir` that are gone again afterwards.
inline JobRun RunHost(const ScratchDir& dir, const std::string& arguments) {
  const std::string out = dir.PathOf(".stdout"), err = dir.PathOf(".stderr");
  const std::string command =
      std::string("'") + TARNI_CA_EXE + "' " + arguments + " >'" + out + "' 2>'" + err + "'";
  const int raw = std::system(command.c_str());
  JobRun run;
  run.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  run.out = ReadText(out);
  run.err = ReadText(err);
  fs::remove(out);
  fs::remove(err);
  return run;
}

}  // namespace tarni::host::jobtest
