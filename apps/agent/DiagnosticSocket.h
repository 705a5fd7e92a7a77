// The agent's diagnostic socket: a Unix-domain stream socket served on the
// activity manager's event loop, and the client that talks to it.
//
// Protocol: a client connects, sends one request as a single line ending in
// a newline (or ends its side of the connection after the line), and reads
// the answer until the server closes the connection. One request per
// connection; anything after the first line is ignored. A request that is
// too long, that holds a control character, or that the handler refuses is
// answered with one line starting "error: ". Nothing a client sends can stop
// or stall the agent: connections are read without blocking, and an answer
// that the client does not read is cut off after answerTimeout, and a
// connection that sends no complete line is closed after its idle timeout.
#pragma once

#include <functional>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>

#include "Kiln/ActivityManager.h"
#include "Kiln/Ptr.h"
#include "Kiln/Types.h"

namespace Agent {

// Longest request line accepted, newline excluded.
constexpr size_t maxRequestLength = 1024;

// Longest time the loop spends writing one answer: a client that does not
// read its answer loses the connection after this.
constexpr Kiln::Seconds answerTimeout = 2.0;

// Most connections open at once; more are answered with an error and closed.
constexpr size_t maxConnections = 16;

// Default longest time a connection may stay open without completing its
// request line; it is then answered with an error line and closed, so that
// idle clients cannot hold the connection limit. Real (monotonic) time, not agent time: a
// manual clock may stand still or jump hours while a client waits.
constexpr Kiln::Seconds defaultIdleTimeout = 10.0;

// Writes the whole text to fd (retrying short writes); returns false when the
// descriptor fails.
bool writeAll(int fd, const std::string& text);

// Why a diagnostic socket could not be set up or reached.
class SocketError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class DiagnosticServer {
 public:
  // Answers one request: writes the answer to fd, the client's connection.
  // It runs on the event loop with the activity lock held; an exception it
  // throws is answered as "error: <what>".
  typedef std::function<void(const std::string& request, int fd)> Handler;

  // Creates the socket at path (owner-only permissions 0600) and serves it
  // on the activity manager's loop. A stale socket file left at path by a
  // process that is gone is replaced; a live one, or a path holding another
  // kind of file, is refused with SocketError, as is a path too long for a
  // socket address.
  // A connection that has not completed its request line idleTimeout
  // seconds (real time) after it opened or last sent a byte is closed.
  DiagnosticServer(const std::string& path, Handler handler,
                   Kiln::Seconds idleTimeout = defaultIdleTimeout);
  // Stops serving: closes every connection and the socket and removes the
  // socket file.
  ~DiagnosticServer();
  DiagnosticServer(const DiagnosticServer&) = delete;
  DiagnosticServer& operator=(const DiagnosticServer&) = delete;

  const std::string& path() const { return path_; }
  // Requests handed to the handler.
  U64 requests() const { return requests_; }
  // Requests answered with an error line by the server itself (too long,
  // malformed, too many connections, no complete request in time).
  U64 refusals() const { return refusals_; }
  // Connections open now.
  size_t connections() const { return openFds_.size(); }
  // Connections closed because they stayed idle too long.
  U64 idleClosed() const;

 private:
  class Listener;
  class Connection;
  class IdleWatch;
  friend class Listener;
  friend class Connection;

  void accepted(int fd);
  void answer(Connection& connection, const std::string& request);
  void refuse(Connection& connection, const std::string& reason);
  // Refuses a connection the idle watch has ended.
  void refuseIdle(Connection& connection);
  void close(Connection& connection);

  std::string path_;
  Handler handler_;
  int listenFd_ = -1;
  Kiln::Ptr<Listener> listener_;
  // The descriptors of the open connections, each registered with the loop.
  std::set<int> openFds_;
  // Shuts idle connections down from a thread of its own, so that it works
  // while the loop waits in poll.
  std::unique_ptr<IdleWatch> idleWatch_;
  Kiln::Seconds idleTimeout_ = defaultIdleTimeout;
  U64 requests_ = 0;
  U64 refusals_ = 0;
};

// Sends request to the server at path and returns its whole answer. Waits up
// to `connectWait` seconds for the socket to appear (a server still
// starting) and up to `timeout` seconds for the answer. Throws SocketError
// when the server cannot be reached or does not answer in time.
std::string diagnosticRequest(const std::string& path, const std::string& request,
                              Kiln::Seconds connectWait = 5.0, Kiln::Seconds timeout = 30.0);

}  // namespace Agent
