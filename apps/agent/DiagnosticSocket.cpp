#include "DiagnosticSocket.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <map>
#include <mutex>
#include <thread>

#include "Kiln/Exception.h"

namespace Agent {
namespace {

[[noreturn]] void fail(const std::string& what, int error) {
  throw SocketError(what + ": " + Kiln::errorString(error));
}

sockaddr_un socketAddress(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof(address.sun_path)) {
    throw SocketError("socket path '" + path + "' is empty or longer than " +
                      std::to_string(sizeof(address.sun_path) - 1) + " characters");
  }
  path.copy(address.sun_path, path.size());
  return address;
}

int newSocket() {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) fail("cannot create a socket", errno);
  return fd;
}

// 0 when a server answers at address, else the connect error.
int tryConnect(int fd, const sockaddr_un& address) {
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) return 0;
  return errno;
}

// Replaces a socket file that nobody listens on any more; refuses anything
// else found at path.
void clearStalePath(const std::string& path, const sockaddr_un& address) {
  struct stat info;
  if (lstat(path.c_str(), &info) != 0) {
    if (errno == ENOENT) return;
    fail("cannot inspect " + path, errno);
  }
  if (!S_ISSOCK(info.st_mode)) throw SocketError(path + " exists and is not a socket");
  const int probe = newSocket();
  const int error = tryConnect(probe, address);
  ::close(probe);
  if (error == 0) throw SocketError("a server already listens at " + path);
  if (unlink(path.c_str()) != 0 && errno != ENOENT)
    fail("cannot remove stale socket " + path, errno);
}

bool malformed(const std::string& request) {
  for (unsigned char c : request) {
    if ((c < 0x20 && c != '\t') || c == 0x7f) return true;
  }
  return false;
}

double monotonicNow() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// A thread that watches over something until it is told to stop: body runs
// on it with the watcher's mutex held, waiting with waitForStop(); the
// destructor tells it to stop and joins it. Whatever body reads must be
// built before the watcher and destroyed after it.
class Watcher {
 public:
  template <class Body>
  explicit Watcher(Body body)
      : thread_([this, body] {
          std::unique_lock<std::mutex> hold(mutex_);
          body(hold);
        }) {}
  ~Watcher() {
    {
      std::lock_guard<std::mutex> hold(mutex_);
      stopping_ = true;
    }
    stop_.notify_one();
    thread_.join();
  }
  Watcher(const Watcher&) = delete;
  Watcher& operator=(const Watcher&) = delete;

  // Waits (hold being the body's lock) until told to stop or until seconds
  // have passed; true when told to stop.
  bool waitForStop(std::unique_lock<std::mutex>& hold, double seconds) {
    return stop_.wait_for(hold, std::chrono::duration<double>(seconds),
                          [this] { return stopping_; });
  }
  // What the body's state is guarded by.
  std::mutex& mutex() const { return mutex_; }

 private:
  mutable std::mutex mutex_;
  std::condition_variable stop_;
  bool stopping_ = false;
  std::thread thread_;
};

// Cuts a connection's answer short once answerTimeout has passed: the
// connection is shut down, which ends a write blocked on a client that does
// not read and makes every later write fail at once. The handler writes with
// plain descriptor writes (dprintf among them), so the limit cannot be put
// on the writes themselves. The answer's end stops the watcher.
class AnswerDeadline {
 public:
  explicit AnswerDeadline(int fd)
      : watcher_([this, fd](std::unique_lock<std::mutex>& hold) {
          if (!watcher_.waitForStop(hold, answerTimeout)) shutdown(fd, SHUT_RDWR);
        }) {}

 private:
  Watcher watcher_;
};

}  // namespace

bool writeAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = send(fd, text.data() + done, text.size() - done, MSG_NOSIGNAL);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    done += static_cast<size_t>(n);
  }
  return true;
}

class DiagnosticServer::IdleWatch {
 public:
  explicit IdleWatch(Kiln::Seconds timeout)
      : timeout_(timeout), watcher_([this](std::unique_lock<std::mutex>& hold) { watch(hold); }) {}

  // fd opened or received bytes: its idle time starts again.
  void activity(int fd) {
    std::lock_guard<std::mutex> hold(watcher_.mutex());
    if (!expired_.count(fd)) since_[fd] = monotonicNow();
  }
  // fd is answered or closed: no longer watched. Called before the loop
  // closes fd, so that the watch never shuts down a reused number.
  void forget(int fd) {
    std::lock_guard<std::mutex> hold(watcher_.mutex());
    since_.erase(fd);
    expired_.erase(fd);
  }
  // True when the watch has shut fd down for idleness.
  bool expired(int fd) const {
    std::lock_guard<std::mutex> hold(watcher_.mutex());
    return expired_.count(fd) != 0;
  }
  U64 closed() const {
    std::lock_guard<std::mutex> hold(watcher_.mutex());
    return closed_;
  }

 private:
  void watch(std::unique_lock<std::mutex>& hold) {
    for (;;) {
      const double now = monotonicNow();
      double next = now + timeout_;
      for (const auto& [fd, since] : since_) {
        if (expired_.count(fd)) continue;
        if (now - since >= timeout_) {
          // Ending the receiving side wakes the loop, which answers with an
          // error line and closes; the descriptor stays open until then,
          // and forget() comes first, so the number is never a reused one.
          expired_.insert(fd);
          shutdown(fd, SHUT_RD);
          ++closed_;
        } else {
          next = std::min(next, since + timeout_);
        }
      }
      if (watcher_.waitForStop(hold, next - now)) return;
    }
  }

  const Kiln::Seconds timeout_;
  std::map<int, double> since_;
  std::set<int> expired_;
  U64 closed_ = 0;
  Watcher watcher_;  // last: it reads the members above
};

class DiagnosticServer::Listener : public Kiln::FdNotifiee {
 public:
  Listener(DiagnosticServer& server, int fd) : FdNotifiee(fd), server_(server) {}

  void onReadable() override {
    for (;;) {
      const int fd = accept4(this->fd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (fd < 0) return;  // EAGAIN: nothing more waiting; other errors: the next round retries
      server_.accepted(fd);
    }
  }

 private:
  DiagnosticServer& server_;
};

class DiagnosticServer::Connection : public Kiln::FdNotifiee {
 public:
  Connection(DiagnosticServer& server, int fd) : FdNotifiee(fd), server_(server) {}

  void onReadable() override {
    // Ended for idleness: whatever it sent is not a request.
    if (server_.idleWatch_->expired(fd())) return server_.refuseIdle(*this);
    char chunk[4096];
    for (;;) {
      const ssize_t n = read(fd(), chunk, sizeof(chunk));
      if (n < 0) {
        if (errno == EINTR) continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK) server_.close(*this);
        return;
      }
      if (n == 0) {
        // The client ended its side: what it sent is the request, if any;
        // an end made by the idle watch (even while this read ran) is not.
        if (server_.idleWatch_->expired(fd())) {
          server_.refuseIdle(*this);
        } else if (buffer_.empty()) {
          server_.close(*this);
        } else {
          complete(buffer_);
        }
        return;
      }
      buffer_.append(chunk, static_cast<size_t>(n));
      server_.idleWatch_->activity(fd());
      const size_t newline = buffer_.find('\n');
      if (newline != std::string::npos) {
        complete(buffer_.substr(0, newline));
        return;
      }
      if (buffer_.size() > maxRequestLength) {
        server_.refuse(*this, "request longer than " + std::to_string(maxRequestLength) + " bytes");
        return;
      }
    }
  }

 private:
  void complete(std::string request) {
    if (!request.empty() && request.back() == '\r') request.pop_back();
    if (request.size() > maxRequestLength) {
      server_.refuse(*this, "request longer than " + std::to_string(maxRequestLength) + " bytes");
    } else if (malformed(request)) {
      server_.refuse(*this, "malformed request (control character)");
    } else {
      server_.answer(*this, request);
    }
  }

  DiagnosticServer& server_;
  std::string buffer_;
};

DiagnosticServer::DiagnosticServer(const std::string& path, Handler handler,
                                   Kiln::Seconds idleTimeout)
    : path_(path), handler_(std::move(handler)) {
  if (!(idleTimeout > 0) || !std::isfinite(idleTimeout)) {
    throw SocketError("idle timeout must be a finite time above 0 s, not " +
                      std::to_string(idleTimeout));
  }
  // A client that goes away while its answer is written must not end the
  // agent: writes to its socket then fail with EPIPE instead.
  signal(SIGPIPE, SIG_IGN);
  const sockaddr_un address = socketAddress(path);
  clearStalePath(path, address);
  listenFd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (listenFd_ < 0) fail("cannot create a socket", errno);
  // The socket file is created owner-only from the start, so that no other
  // user can connect between bind and chmod.
  const mode_t previous = umask(0177);
  const int bound = bind(listenFd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  const int bindError = errno;
  umask(previous);
  if (bound != 0 || chmod(path.c_str(), 0600) != 0 || listen(listenFd_, 16) != 0) {
    const int error = bound != 0 ? bindError : errno;
    ::close(listenFd_);
    if (bound == 0) unlink(path.c_str());
    fail("cannot serve " + path, error);
  }
  idleTimeout_ = idleTimeout;
  idleWatch_ = std::make_unique<IdleWatch>(idleTimeout);
  listener_ = new Listener(*this, listenFd_);
  Kiln::ActivityManager::instance().fdNotifieeIs(listener_);
}

DiagnosticServer::~DiagnosticServer() {
  idleWatch_.reset();
  Kiln::ActivityManager& manager = Kiln::ActivityManager::instance();
  for (int fd : openFds_) {
    manager.fdNotifieeDel(fd);
    ::close(fd);
  }
  manager.fdNotifieeDel(listenFd_);
  ::close(listenFd_);
  unlink(path_.c_str());
}

void DiagnosticServer::accepted(int fd) {
  if (openFds_.size() >= maxConnections) {
    ++refusals_;
    writeAll(fd, "error: too many connections\n");
    ::close(fd);
    return;
  }
  openFds_.insert(fd);
  idleWatch_->activity(fd);
  Kiln::ActivityManager::instance().fdNotifieeIs(new Connection(*this, fd));
}

U64 DiagnosticServer::idleClosed() const { return idleWatch_->closed(); }

void DiagnosticServer::answer(Connection& connection, const std::string& request) {
  ++requests_;
  const int fd = connection.fd();
  // Busy, not idle: the answer has a deadline of its own.
  idleWatch_->forget(fd);
  // The answer is written with blocking writes, so that an answer larger
  // than the socket buffer still goes out whole to a client that reads it;
  // a client that stops reading holds the loop for at most answerTimeout.
  const int flags = fcntl(fd, F_GETFL);
  fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
  {
    AnswerDeadline deadline(fd);
    try {
      handler_(request, fd);
    } catch (const std::exception& e) {
      writeAll(fd, std::string("error: ") + e.what() + "\n");
    }
  }
  close(connection);
}

void DiagnosticServer::refuse(Connection& connection, const std::string& reason) {
  ++refusals_;
  idleWatch_->forget(connection.fd());
  writeAll(connection.fd(), "error: " + reason + "\n");
  close(connection);
}

void DiagnosticServer::refuseIdle(Connection& connection) {
  char reason[96];
  std::snprintf(reason, sizeof(reason), "no complete request within %g s", idleTimeout_);
  refuse(connection, reason);
}

void DiagnosticServer::close(Connection& connection) {
  const int fd = connection.fd();
  openFds_.erase(fd);
  idleWatch_->forget(fd);
  // Unregistered before the descriptor is closed, so that the loop never
  // polls a closed (or reused) number for this connection.
  Kiln::ActivityManager::instance().fdNotifieeDel(fd);
  ::close(fd);
}

std::string diagnosticRequest(const std::string& path, const std::string& request,
                              Kiln::Seconds connectWait, Kiln::Seconds timeout) {
  const sockaddr_un address = socketAddress(path);
  const double connectDeadline = monotonicNow() + connectWait;
  int fd;
  for (;;) {
    fd = newSocket();
    const int error = tryConnect(fd, address);
    if (error == 0) break;
    ::close(fd);
    if ((error != ENOENT && error != ECONNREFUSED) || monotonicNow() >= connectDeadline) {
      fail("cannot connect to " + path, error);
    }
    // The server may still be starting: look again shortly.
    const timespec pause{0, 50 * 1000 * 1000};
    nanosleep(&pause, nullptr);
  }
  // The server may answer (and close) before reading all of a long request;
  // its answer is still read below.
  writeAll(fd, request + "\n");
  shutdown(fd, SHUT_WR);
  std::string answer;
  const double deadline = monotonicNow() + timeout;
  char chunk[4096];
  for (;;) {
    const double left = deadline - monotonicNow();
    pollfd watch{fd, POLLIN, 0};
    const int ready = left > 0 ? poll(&watch, 1, static_cast<int>(std::ceil(left * 1000))) : 0;
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) {
      ::close(fd);
      throw SocketError("no answer from " + path + " within " + std::to_string(timeout) + " s");
    }
    const ssize_t n = read(fd, chunk, sizeof(chunk));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;  // end of the answer, or a reset after it
    answer.append(chunk, static_cast<size_t>(n));
  }
  ::close(fd);
  return answer;
}

}  // namespace Agent
