#include "io/atomicfile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <new>
#include <system_error>

namespace tarni::host {
namespace {

std::string ErrnoText(int code) { return std::system_category().message(code); }

bool Fail(const std::filesystem::path& path, std::string message, IoError& error) {
  error = IoError{};
  error.file = path.string();
  error.message = std::move(message);
  return false;
}

// Writes all of `data`, resuming after short writes and interrupted calls.
bool WriteAll(int fd, std::string_view data, int& code) {
  const char* p = data.data();
  size_t left = data.size();
  while (left > 0) {
    ssize_t n = ::write(fd, p, left);
    if (n < 0) {
      if (errno == EINTR) continue;
      code = errno;
      return false;
    }
    p += n;
    left -= static_cast<size_t>(n);
  }
  return true;
}

// Closes a descriptor on every path out, including an exception from a growing buffer.
class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  int get() const { return fd_; }
  // Closes now so the caller can see the result (a failing close can mean lost data).
  int Close() {
    const int result = ::close(fd_);
    fd_ = -1;
    return result;
  }

 private:
  int fd_;
};

// Distinguishes the temporaries of concurrent writers in one process; the process id does that
// between processes. O_EXCL below guarantees a leftover file is never reused or clobbered.
std::atomic<unsigned> tempCounter{0};

bool WriteFileAtomicallyImpl(const std::filesystem::path& path, std::string_view contents,
                             IoError& error) {
  const std::filesystem::path name = path.filename();
  if (name.empty() || name == "." || name == "..") {
    return Fail(path, "cannot write: the path does not name a file", error);
  }
  // Built by appending: g++ 12 warns falsely (-Wrestrict) on "." + std::string at -O2.
  std::string base(1, '.');
  base.append(name.string()).append(".tmp.").append(std::to_string(::getpid())).append(".");

  // Keep the permissions of the file being replaced; a new file gets the usual 0666 & ~umask.
  mode_t keepMode = 0;
  bool keep = false;
  struct stat existing;
  if (::stat(path.c_str(), &existing) == 0) {
    if (S_ISDIR(existing.st_mode)) return Fail(path, "cannot write: it is a directory", error);
    if (S_ISREG(existing.st_mode)) {
      keepMode = existing.st_mode & 07777;
      keep = true;
    }
  }

  std::filesystem::path temp;
  int raw = -1;
  for (int attempt = 0; attempt < 100 && raw < 0; ++attempt) {
    temp = path.parent_path() / (base + std::to_string(tempCounter.fetch_add(1)));
    raw = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (raw < 0 && errno != EEXIST) {
      return Fail(path, "cannot create a temporary file next to it: " + ErrnoText(errno), error);
    }
  }
  if (raw < 0) return Fail(path, "cannot create a temporary file next to it", error);
  Descriptor fd(raw);
  // Removes the temporary on every way out that is not a successful rename, exceptions included.
  struct RemoveTemporary {
    const std::filesystem::path& temp;
    bool armed = true;
    ~RemoveTemporary() {
      if (armed) ::unlink(temp.c_str());
    }
  } cleanup{temp};

  int code = 0;
  std::string failure;
  if (keep && ::fchmod(fd.get(), keepMode) != 0) {
    failure = "cannot set the permissions of the temporary file: " + ErrnoText(errno);
  } else if (!WriteAll(fd.get(), contents, code)) {
    failure = "cannot write: " + ErrnoText(code);
  }
  if (fd.Close() != 0 && failure.empty()) failure = "cannot write: " + ErrnoText(errno);
  if (failure.empty() && ::rename(temp.c_str(), path.c_str()) != 0) {
    failure = "cannot move the finished file into place: " + ErrnoText(errno);
  }
  if (!failure.empty()) return Fail(path, std::move(failure), error);
  cleanup.armed = false;
  return true;
}

bool ReadWholeFileImpl(const std::filesystem::path& path, std::string& contents, IoError& error) {
  Descriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0) return Fail(path, "cannot open: " + ErrnoText(errno), error);
  struct stat info;
  size_t expected = 0;
  if (::fstat(fd.get(), &info) == 0) {
    if (S_ISDIR(info.st_mode)) return Fail(path, "cannot read: it is a directory", error);
    // The size is only a hint (pipes and growing files report something else); reading goes on
    // until end of file either way.
    if (S_ISREG(info.st_mode) && info.st_size > 0) expected = static_cast<size_t>(info.st_size);
  }
  // Read straight into the string: one allocation for a regular file, no copy through a buffer.
  contents.clear();
  size_t used = 0;
  contents.resize(std::max<size_t>(expected + 1, 1 << 16));
  for (;;) {
    if (used == contents.size()) contents.resize(contents.size() * 2);
    const ssize_t n = ::read(fd.get(), contents.data() + used, contents.size() - used);
    if (n < 0) {
      if (errno == EINTR) continue;
      const int code = errno;
      contents.clear();
      return Fail(path, "cannot read: " + ErrnoText(code), error);
    }
    if (n == 0) break;
    used += static_cast<size_t>(n);
  }
  contents.resize(used);
  return true;
}

}  // namespace

bool WriteFileAtomically(const std::filesystem::path& path, std::string_view contents,
                         IoError& error) {
  try {
    return WriteFileAtomicallyImpl(path, contents, error);
  } catch (const std::bad_alloc&) {
    return Fail(path, "cannot write: out of memory", error);
  } catch (const std::exception& e) {
    return Fail(path, std::string("cannot write: ") + e.what(), error);
  }
}

bool ReadWholeFile(const std::filesystem::path& path, std::string& contents, IoError& error) {
  try {
    return ReadWholeFileImpl(path, contents, error);
  } catch (const std::bad_alloc&) {
    contents.clear();
    return Fail(path, "cannot read: out of memory", error);
  } catch (const std::exception& e) {
    contents.clear();
    return Fail(path, std::string("cannot read: ") + e.what(), error);
  }
}

}  // namespace tarni::host
