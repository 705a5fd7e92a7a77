#include "Kiln/ActivityManager.h"

#include <errno.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>

#include "Kiln/Exception.h"

namespace Kiln {
namespace {

// Longest single wait; a longer finite timeout waits again in the next round.
constexpr Seconds kLongestWait = 1e6;

timespec toTimespec(Seconds wait) {
  const Seconds whole = std::floor(wait);
  timespec result;
  result.tv_sec = static_cast<time_t>(whole);
  // Rounded up so that a wait for an expiry never ends just before it.
  result.tv_nsec = static_cast<long>(std::ceil((wait - whole) * 1e9));
  if (result.tv_nsec >= 1000000000L) {
    result.tv_sec += 1;
    result.tv_nsec -= 1000000000L;
  }
  return result;
}

}  // namespace

void FdNotifiee::readableWantedIs(bool wanted) {
  if (wanted == readableWanted_) return;
  readableWanted_ = wanted;
  ActivityManager::instance().wake();
}

void FdNotifiee::writableWantedIs(bool wanted) {
  if (wanted == writableWanted_) return;
  writableWanted_ = wanted;
  ActivityManager::instance().wake();
}

ActivityManager& ActivityManager::instance() {
  // Never destroyed: handlers and notifiees may still refer to it while the
  // process exits.
  static ActivityManager* const manager = new ActivityManager();
  return *manager;
}

ActivityManager::ActivityManager()
    : realTime_(new MonotonicClock()), wakeFd_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
  if (wakeFd_ < 0)
    throw ErrnoException(errno, "Failed to create the event loop's wake-up descriptor");
  clockIs(realTime_);
}

void ActivityManager::clockIs(const Ptr<Clock>& clock) {
  Ptr<Clock> next = validPtr(clock);
  if (clock_) clock_->wakeupIs(nullptr);
  clock_ = next;
  clock_->wakeupIs([this] { wake(); });
  wake();
}

void ActivityManager::fdNotifieeIs(const Ptr<FdNotifiee>& notifiee) {
  Ptr<FdNotifiee> added = validPtr(notifiee);
  fdNotifiees_[added->fd()] = added;
  wake();
}

Ptr<FdNotifiee> ActivityManager::fdNotifiee(int fd) const {
  auto found = fdNotifiees_.find(fd);
  return found == fdNotifiees_.end() ? nullptr : found->second;
}

Ptr<FdNotifiee> ActivityManager::fdNotifieeDel(int fd) {
  auto found = fdNotifiees_.find(fd);
  if (found == fdNotifiees_.end()) return nullptr;
  Ptr<FdNotifiee> removed = found->second;
  fdNotifiees_.erase(found);
  wake();
  return removed;
}

bool ActivityManager::registered(const Ptr<FdNotifiee>& notifiee) const {
  return fdNotifiee(notifiee->fd()) == notifiee;
}

Seconds ActivityManager::waitFor(Seconds timeout) const {
  if (stopRequested_.load()) return 0;
  const Seconds untilExpiry = clock_->nextExpiry() - clock_->now();
  if (untilExpiry <= 0) return 0;
  const Seconds wait = std::max<Seconds>(timeout, 0);
  return clock_->advancesByItself() ? std::min(wait, untilExpiry) : wait;
}

U32 ActivityManager::runOnce(Seconds timeout) {
  LockGuard hold(lock());

  std::vector<pollfd> fds{pollfd{wakeFd_, POLLIN, 0}};
  std::vector<Ptr<FdNotifiee>> watched;
  for (const auto& [fd, notifiee] : fdNotifiees_) {
    const short events = static_cast<short>((notifiee->readableWanted() ? POLLIN : 0) |
                                            (notifiee->writableWanted() ? POLLOUT : 0));
    if (events == 0) continue;
    fds.push_back(pollfd{fd, events, 0});
    watched.push_back(notifiee);
  }

  const Seconds wait = waitFor(timeout);
  const timespec waitTime = toTimespec(std::min(wait, kLongestWait));
  int ready;
  int error;
  // waiting_ is set before the lock is given up, so that a thread which
  // takes the lock while we wait always sees it and wakes us.
  waiting_.store(true);
  try {
    UnlockAnchor release(lock());
    ready = ppoll(fds.data(), fds.size(), wait == Clock::never ? nullptr : &waitTime, nullptr);
    error = errno;
  } catch (...) {
    waiting_.store(false);
    throw;
  }
  waiting_.store(false);
  if (ready < 0 && error != EINTR) throw ErrnoException(error, "Failed to wait for activity");

  U32 ran = 0;
  if (ready > 0) {
    if (fds[0].revents != 0) drainWakeFd();
    for (size_t i = 1; i < fds.size(); ++i) {
      const short events = fds[i].revents;
      const Ptr<FdNotifiee>& notifiee = watched[i - 1];
      // An earlier handler of this round may have unregistered it.
      if (events == 0 || !registered(notifiee)) continue;
      if (events & POLLNVAL) {
        fdNotifiees_.erase(notifiee->fd());
        continue;
      }
      if ((events & (POLLIN | POLLHUP | POLLERR)) && notifiee->readableWanted()) {
        ++ran;
        notifiee->onReadable();
      }
      if ((events & (POLLOUT | POLLHUP | POLLERR)) && notifiee->writableWanted() &&
          registered(notifiee)) {
        ++ran;
        notifiee->onWritable();
      }
    }
  }
  return ran + clock_->runExpiries(clock_->now());
}

bool ActivityManager::runUntil(const std::function<bool()>& done, Seconds timeout) {
  LockGuard hold(lock());
  const Seconds deadline = realTime_->now() + timeout;
  while (!done()) {
    if (stopRequested_.exchange(false)) return false;
    const Seconds left = deadline - realTime_->now();
    if (left <= 0) return false;
    runOnce(left);
  }
  return true;
}

void ActivityManager::run() {
  runUntil([] { return false; });
}

void ActivityManager::stop() {
  stopRequested_.store(true);
  signalWakeFd();
}

void ActivityManager::wake() {
  if (waiting_.load()) signalWakeFd();
}

void ActivityManager::signalWakeFd() {
  const U64 one = 1;
  // Can only fail when the counter is near overflow, and then a wake-up is
  // pending anyway.
  [[maybe_unused]] ssize_t written = write(wakeFd_, &one, sizeof(one));
}

void ActivityManager::drainWakeFd() {
  U64 count;
  [[maybe_unused]] ssize_t got = read(wakeFd_, &count, sizeof(count));
}

Seconds now() { return ActivityManager::instance().clock()->now(); }

}  // namespace Kiln
