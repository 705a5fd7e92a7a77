#include "DiagnosticSocket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <fstream>
#include <future>
#include <memory>

using namespace Agent;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

class DiagnosticSocketTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char dir[] = "/tmp/agent-socket-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    dir_ = dir;
    path_ = dir_ + "/agent.sock";
  }
  void TearDown() override {
    server_.reset();
    unlink(path_.c_str());
    rmdir(dir_.c_str());
  }

  // Serves with a handler that answers "you said: <request>".
  void serveEcho(Kiln::Seconds idleTimeout = defaultIdleTimeout) {
    server_ = std::make_unique<DiagnosticServer>(
        path_,
        [this](const std::string& request, int fd) {
          handled_.push_back(request);
          if (request == "boom") throw std::runtime_error("boom");
          if (request == "lines") {
            // Many small descriptor writes, as the free-entry summary of a
            // fragmented table makes (at most 32767 runs).
            for (int i = 0; i < 40000; ++i) dprintf(fd, "%-15d%-5d\n", i, 1);
            return;
          }
          if (request == "big") {
            writeAll(fd, std::string(1 << 20, 'x') + "\n");
            return;
          }
          writeAll(fd, "you said: " + request + "\n");
        },
        idleTimeout);
  }

  // Runs the event loop on this thread until `work`, running on another
  // thread, is done, and returns its result.
  template <class F>
  auto whileServing(F work) {
    auto result = std::async(std::launch::async, work);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (result.wait_for(std::chrono::seconds(0)) != std::future_status::ready &&
           std::chrono::steady_clock::now() < deadline) {
      Kiln::ActivityManager::instance().runOnce(0.01);
    }
    return result.get();
  }

  std::string ask(const std::string& request) {
    return whileServing([&] { return diagnosticRequest(path_, request, 0, 10); });
  }

  // Connects, sends raw bytes, optionally ends the sending side, and reads
  // the answer until the server closes.
  static std::string rawExchange(const std::string& path, const std::string& bytes,
                                 bool endSending) {
    const int fd = connectTo(path);
    if (fd < 0) return "connect failed";
    send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (endSending) shutdown(fd, SHUT_WR);
    std::string answer;
    char chunk[4096];
    for (;;) {
      const ssize_t n = read(fd, chunk, sizeof(chunk));
      if (n <= 0) break;
      answer.append(chunk, static_cast<size_t>(n));
    }
    close(fd);
    return answer;
  }

  static int connectTo(const std::string& path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, path.size());
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
      close(fd);
      return -1;
    }
    return fd;
  }

  std::string raw(const std::string& bytes, bool endSending = true) {
    return whileServing([&] { return rawExchange(path_, bytes, endSending); });
  }

  void runLoop(int rounds) {
    for (int i = 0; i < rounds; ++i) Kiln::ActivityManager::instance().runOnce(0.01);
  }

  std::string dir_;
  std::string path_;
  std::unique_ptr<DiagnosticServer> server_;
  std::vector<std::string> handled_;
};

}  // namespace

TEST_F(DiagnosticSocketTest, AnswersARequestLine) {
  serveEcho();
  EXPECT_EQ(ask("show free-entries"), "you said: show free-entries\n");
  EXPECT_EQ(server_->requests(), 1u);
  EXPECT_EQ(server_->connections(), 0u);
}

TEST_F(DiagnosticSocketTest, SocketIsOwnerOnly) {
  serveEcho();
  struct stat info;
  ASSERT_EQ(lstat(path_.c_str(), &info), 0);
  EXPECT_TRUE(S_ISSOCK(info.st_mode));
  EXPECT_EQ(info.st_mode & 0777, 0600u);
}

TEST_F(DiagnosticSocketTest, OversizedRequestGetsAnErrorAndTheServerGoesOn) {
  serveEcho();
  EXPECT_EQ(raw(std::string(5000, 'a')), "error: request longer than 1024 bytes\n");
  EXPECT_EQ(raw(std::string(1025, 'a') + "\n"), "error: request longer than 1024 bytes\n");
  EXPECT_EQ(server_->refusals(), 2u);
  EXPECT_TRUE(handled_.empty());
  // The longest accepted request, and the agent still serves.
  EXPECT_EQ(raw(std::string(1024, 'a') + "\n"), "you said: " + std::string(1024, 'a') + "\n");
  EXPECT_EQ(ask("ping"), "you said: ping\n");
}

TEST_F(DiagnosticSocketTest, AnEndlessRequestIsCutOff) {
  serveEcho();
  // The client keeps sending without a newline; the server answers once the
  // limit is passed and closes, without reading the rest.
  const std::string answer = whileServing([&] {
    const int fd = connectTo(path_);
    std::string chunk(512, 'z');
    for (int i = 0; i < 1000; ++i) {
      if (send(fd, chunk.data(), chunk.size(), MSG_NOSIGNAL) < 0) break;
    }
    char buffer[256];
    const ssize_t n = read(fd, buffer, sizeof(buffer));
    close(fd);
    return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : std::string("nothing");
  });
  EXPECT_EQ(answer, "error: request longer than 1024 bytes\n");
  EXPECT_EQ(ask("ping"), "you said: ping\n");
}

TEST_F(DiagnosticSocketTest, ControlCharactersAreMalformed) {
  serveEcho();
  EXPECT_EQ(raw(std::string("show\x01", 5) + "\n"),
            "error: malformed request (control character)\n");
  EXPECT_EQ(raw(std::string("a\0b\n", 4)), "error: malformed request (control character)\n");
  EXPECT_TRUE(handled_.empty());
  // A tab and a trailing carriage return are fine.
  EXPECT_EQ(raw("get\tx\r\n"), "you said: get\tx\n");
}

TEST_F(DiagnosticSocketTest, AHandlerExceptionIsAnErrorLine) {
  serveEcho();
  EXPECT_EQ(ask("boom"), "error: boom\n");
  EXPECT_EQ(ask("ping"), "you said: ping\n");
}

TEST_F(DiagnosticSocketTest, OnlyTheFirstLineIsARequest) {
  serveEcho();
  EXPECT_EQ(raw("first\nsecond\n"), "you said: first\n");
  EXPECT_EQ(handled_, std::vector<std::string>{"first"});
}

TEST_F(DiagnosticSocketTest, ALineEndedByClosingTheSendingSideIsARequest) {
  serveEcho();
  EXPECT_EQ(raw("no newline", true), "you said: no newline\n");
}

TEST_F(DiagnosticSocketTest, AClientThatSendsNothingIsClosedQuietly) {
  serveEcho();
  EXPECT_EQ(raw("", true), "");
  EXPECT_TRUE(handled_.empty());
  EXPECT_EQ(server_->connections(), 0u);
  EXPECT_EQ(server_->refusals(), 0u);
}

TEST_F(DiagnosticSocketTest, TooManyConnectionsAreRefused) {
  serveEcho();
  std::vector<int> idle;
  for (size_t i = 0; i < maxConnections; ++i) idle.push_back(connectTo(path_));
  runLoop(5);
  EXPECT_EQ(server_->connections(), maxConnections);
  EXPECT_EQ(raw("ping\n"), "error: too many connections\n");
  for (int fd : idle) close(fd);
  runLoop(5);
  EXPECT_EQ(server_->connections(), 0u);
  EXPECT_EQ(ask("ping"), "you said: ping\n");
}

TEST_F(DiagnosticSocketTest, IdleClientsCannotHoldTheConnectionLimitLongerThanTheTimeout) {
  const Kiln::Seconds timeout = 0.3;
  serveEcho(timeout);
  std::vector<int> idle;
  for (size_t i = 0; i < maxConnections; ++i) idle.push_back(connectTo(path_));
  // Half a request is no request: it is dropped with its connection.
  send(idle[0], "half", 4, MSG_NOSIGNAL);
  runLoop(5);
  ASSERT_EQ(server_->connections(), maxConnections);
  EXPECT_EQ(raw("ping\n"), "error: too many connections\n");
  // A client that retries is answered once the idle ones are closed.
  const auto start = std::chrono::steady_clock::now();
  const std::string answer = whileServing([&] {
    std::string got;
    for (int i = 0; i < 500 && got != "you said: ping\n"; ++i) {
      got = rawExchange(path_, "ping\n", true);
      usleep(10000);
    }
    return got;
  });
  const double waited =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_EQ(answer, "you said: ping\n");
  // Locked out for about the timeout, not for good (the bound leaves room
  // for a loaded machine).
  EXPECT_LT(waited, timeout + 5.0);
  EXPECT_EQ(server_->idleClosed(), maxConnections);
  EXPECT_EQ(server_->connections(), 0u);
  EXPECT_EQ(handled_, std::vector<std::string>{"ping"});
  for (int fd : idle) {
    std::string got;
    char chunk[256];
    for (ssize_t n; (n = read(fd, chunk, sizeof(chunk))) > 0;) got.append(chunk, size_t(n));
    EXPECT_EQ(got, "error: no complete request within 0.3 s\n");
    close(fd);
  }
}

TEST_F(DiagnosticSocketTest, AClientThatKeepsSendingIsNotIdle) {
  serveEcho(1.0);
  const std::string answer = whileServing([&] {
    const int fd = connectTo(path_);
    // Each byte comes before the timeout runs out, the whole line after it.
    for (char c : std::string("slowly")) {
      send(fd, &c, 1, MSG_NOSIGNAL);
      usleep(300000);
    }
    send(fd, "\n", 1, MSG_NOSIGNAL);
    std::string got;
    char chunk[256];
    for (ssize_t n; (n = read(fd, chunk, sizeof(chunk))) > 0;) got.append(chunk, size_t(n));
    close(fd);
    return got;
  });
  EXPECT_EQ(answer, "you said: slowly\n");
  EXPECT_EQ(server_->idleClosed(), 0u);
}

TEST_F(DiagnosticSocketTest, AnIdleTimeoutThatIsNotAPositiveTimeIsRefused) {
  for (double bad : {0.0, -1.0, std::nan(""), HUGE_VAL}) {
    EXPECT_THROW(DiagnosticServer(
                     path_, [](const std::string&, int) {}, bad),
                 SocketError)
        << bad;
    EXPECT_NE(access(path_.c_str(), F_OK), 0);
  }
}

TEST_F(DiagnosticSocketTest, ALargeAnswerArrivesWhole) {
  serveEcho();
  const std::string answer = ask("big");
  EXPECT_EQ(answer.size(), (1u << 20) + 1);
}

TEST_F(DiagnosticSocketTest, AClientThatDoesNotReadCannotHoldTheAgent) {
  serveEcho();
  const int fd = connectTo(path_);
  ASSERT_GE(fd, 0);
  send(fd, "big\n", 4, MSG_NOSIGNAL);
  // The answer does not fit the socket buffers and nobody reads it: the
  // write gives up after the answer timeout and the connection is closed.
  runLoop(3);
  EXPECT_EQ(server_->connections(), 0u);
  close(fd);
  EXPECT_EQ(ask("ping"), "you said: ping\n");
}

TEST_F(DiagnosticSocketTest, ManySmallWritesToAClientThatDoesNotReadAreCutOffToo) {
  serveEcho();
  const int fd = connectTo(path_);
  ASSERT_GE(fd, 0);
  send(fd, "lines\n", 6, MSG_NOSIGNAL);
  // Once the deadline has shut the connection down, each further write
  // fails at once instead of waiting for the client.
  runLoop(3);
  EXPECT_EQ(server_->connections(), 0u);
  close(fd);
  EXPECT_EQ(ask("ping"), "you said: ping\n");
}

TEST_F(DiagnosticSocketTest, ManySmallWritesReachAClientThatReads) {
  serveEcho();
  const std::string answer = ask("lines");
  EXPECT_EQ(answer.size(), 40000u * 21);
}

TEST_F(DiagnosticSocketTest, AClientThatLeavesBeforeItsAnswerDoesNotStopTheAgent) {
  serveEcho();
  const int fd = connectTo(path_);
  send(fd, "big\n", 4, MSG_NOSIGNAL);
  close(fd);
  runLoop(3);
  EXPECT_EQ(ask("ping"), "you said: ping\n");
}

TEST_F(DiagnosticSocketTest, StopServingRemovesTheSocketFile) {
  serveEcho();
  server_.reset();
  EXPECT_NE(access(path_.c_str(), F_OK), 0);
  EXPECT_THROW(diagnosticRequest(path_, "ping", 0, 1), SocketError);
}

TEST_F(DiagnosticSocketTest, AStaleSocketFileIsReplaced) {
  {
    // A socket bound and left behind, as by a process that died.
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path_.copy(address.sun_path, path_.size());
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    close(fd);
  }
  serveEcho();
  EXPECT_EQ(ask("ping"), "you said: ping\n");
}

TEST_F(DiagnosticSocketTest, ALiveServerOrAnotherFileAtThePathIsRefused) {
  serveEcho();
  try {
    DiagnosticServer second(path_, [](const std::string&, int) {});
    FAIL() << "a second server started";
  } catch (const SocketError& e) {
    EXPECT_THAT(e.what(), HasSubstr("a server already listens at " + path_));
  }
  server_.reset();
  { std::ofstream(path_) << "keep me\n"; }
  EXPECT_THROW(DiagnosticServer(path_, [](const std::string&, int) {}), SocketError);
  std::ifstream kept(path_);
  std::string line;
  std::getline(kept, line);
  EXPECT_EQ(line, "keep me");
}

TEST_F(DiagnosticSocketTest, APathTooLongForASocketIsRefused) {
  EXPECT_THROW(DiagnosticServer("/tmp/" + std::string(200, 'p'), [](const std::string&, int) {}),
               SocketError);
  EXPECT_THROW(diagnosticRequest("", "ping", 0, 1), SocketError);
}

TEST_F(DiagnosticSocketTest, AClientWithoutServerFails) {
  try {
    diagnosticRequest(path_, "ping", 0, 1);
    FAIL() << "no error";
  } catch (const SocketError& e) {
    EXPECT_THAT(e.what(), StartsWith("cannot connect to " + path_));
  }
}
