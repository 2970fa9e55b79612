// waits.cc - one wait on many nodes, in six ways. The time-out is kTimeoutMsec and never expires.
#include "bench/waits.hh"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "bench/measure.hh"

namespace bench {
namespace {

constexpr int kTimeoutMsec = 1000;

std::vector<int> DescriptorsOf(const std::vector<MQNode*>& nodes) {
  std::vector<int> fds;
  for (const MQNode* node : nodes) fds.push_back(node->sock.fd);
  return fds;
}

// Uses one work record for all waits, as servers do.
class NodeWaiter : public Waiter {
 public:
  explicit NodeWaiter(const std::vector<MQNode*>& nodes)
      : nodes_(nodes), listen_(nodes.size() + 1), read_(nodes.size() + 1), write_(nodes.size() + 1) {
    nodes_.push_back(nullptr);
    Check(InitSocketPostData(&work_, SOCK_POST_SIZE), "InitSocketPostData");
  }
  ~NodeWaiter() override { FreeSocketPostData(&work_); }

 protected:
  size_t CountReady() const {
    size_t count = 0;
    while (read_[count] != nullptr) ++count;
    return count;
  }

  std::vector<MQNode*> nodes_;
  std::vector<MQNode*> listen_;
  std::vector<MQNode*> read_;
  std::vector<MQNode*> write_;
  SockPostData work_;
  int status_ = 0;
};

class PostWaiter : public NodeWaiter {
 public:
  using NodeWaiter::NodeWaiter;
  size_t Wait() override {
    if (!mnPostExMSec(nodes_.data(), listen_.data(), read_.data(), kTimeoutMsec, &status_, &work_)) Die("mnPostExMSec");
    return CountReady();
  }
};

class NPostWaiter : public NodeWaiter {
 public:
  using NodeWaiter::NodeWaiter;
  size_t Wait() override {
    if (!mnNPostExMSec(nodes_.data(), listen_.data(), read_.data(), write_.data(), kTimeoutMsec, &status_, &work_)) {
      Die("mnNPostExMSec");
    }
    return CountReady();
  }
};

// Descriptors in one array: the densest layout.
class DescriptorArray {
 public:
  explicit DescriptorArray(const std::vector<MQNode*>& nodes) : fds_(DescriptorsOf(nodes)) {}
  size_t size() const { return fds_.size(); }
  int operator[](size_t i) const { return fds_[i]; }

 private:
  const std::vector<int> fds_;
};

// Each descriptor in the record of its connection, as in a program that keeps more data about a connection.
class DescriptorsInRecords {
 public:
  explicit DescriptorsInRecords(const std::vector<MQNode*>& nodes) : nodes_(nodes) {}
  size_t size() const { return nodes_.size(); }
  int operator[](size_t i) const { return nodes_[i]->sock.fd; }

 private:
  const std::vector<MQNode*> nodes_;
};

// Three sets as in a wait on nodes, cleared, filled and scanned each time; ready descriptors are put in a list.
template <typename Descriptors>
class SelectWaiter : public Waiter {
 public:
  explicit SelectWaiter(const std::vector<MQNode*>& nodes) : fds_(nodes), seen_(nodes.size()), ready_(nodes.size()) {
    int highest = 0;
    for (size_t i = 0; i < fds_.size(); ++i) highest = std::max(highest, fds_[i]);
    words_ = std::max<size_t>(FD_SETSIZE, static_cast<size_t>(highest) + kBits) / kBits;
    for (auto& set : sets_) set.resize(words_);
  }
  size_t Wait() override {
    for (auto& set : sets_) memset(set.data(), 0, words_ * sizeof(Word));
    Word* const read = sets_[0].data();
    Word* const except = sets_[2].data();
    int highest = 0;
    for (size_t i = 0; i < fds_.size(); ++i) {
      const int fd = seen_[i] = fds_[i];
      Add(read, fd);
      Add(except, fd);
      if (fd > highest) highest = fd;
    }
    timeval limit = {kTimeoutMsec / 1000, kTimeoutMsec % 1000 * 1000};
    if (select(highest + 1, SetOf(0), SetOf(1), SetOf(2), &limit) <= 0) Die("select");
    size_t count = 0;
    for (const int fd : seen_) {
      if (Has(read, fd) || Has(except, fd)) ready_[count++] = fd;
    }
    return count;
  }

 private:
  using Word = unsigned long;
  static constexpr size_t kBits = 64;
  static void Add(Word* set, int fd) { set[unsigned(fd) / kBits] |= 1UL << (unsigned(fd) % kBits); }
  static bool Has(const Word* set, int fd) { return (set[unsigned(fd) / kBits] >> (unsigned(fd) % kBits)) & 1; }
  fd_set* SetOf(size_t i) { return reinterpret_cast<fd_set*>(sets_[i].data()); }

  const Descriptors fds_;
  std::vector<int> seen_;
  std::vector<int> ready_;
  std::vector<Word> sets_[3];
  size_t words_;
};

// An array filled once.
class PollWaiter : public Waiter {
 public:
  explicit PollWaiter(const std::vector<MQNode*>& nodes) : ready_(nodes.size()) {
    for (const int fd : DescriptorsOf(nodes)) polls_.push_back({fd, POLLIN | POLLPRI, 0});
  }
  size_t Wait() override {
    if (poll(polls_.data(), polls_.size(), kTimeoutMsec) <= 0) Die("poll");
    size_t count = 0;
    for (const pollfd& entry : polls_) {
      if (entry.revents != 0) ready_[count++] = entry.fd;
    }
    return count;
  }

 private:
  std::vector<pollfd> polls_;
  std::vector<int> ready_;
};

// Descriptors registered once.
class EpollWaiter : public Waiter {
 public:
  explicit EpollWaiter(const std::vector<MQNode*>& nodes) : epoll_(epoll_create1(0)), events_(nodes.size()) {
    Check(epoll_ != -1, "epoll_create1");
    for (const int fd : DescriptorsOf(nodes)) {
      epoll_event event = {};
      event.events = EPOLLIN | EPOLLPRI;
      event.data.fd = fd;
      Check(epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event) == 0, "epoll_ctl");
    }
  }
  ~EpollWaiter() override { close(epoll_); }
  size_t Wait() override {
    const int count = epoll_wait(epoll_, events_.data(), static_cast<int>(events_.size()), kTimeoutMsec);
    if (count <= 0) Die("epoll_wait");
    return static_cast<size_t>(count);
  }

 private:
  const int epoll_;
  std::vector<epoll_event> events_;
};

template <typename T>
std::unique_ptr<Waiter> Make(const std::vector<MQNode*>& nodes) {
  return std::make_unique<T>(nodes);
}

}  // namespace

const std::vector<WaitKind>& WaitKinds() {
  static const std::vector<WaitKind> kinds = {{"mnPost", Make<PostWaiter>},
                                              {"mnNPost", Make<NPostWaiter>},
                                              {"select", Make<SelectWaiter<DescriptorArray>>},
                                              {"poll", Make<PollWaiter>},
                                              {"epoll", Make<EpollWaiter>},
                                              {"records", Make<SelectWaiter<DescriptorsInRecords>>}};
  return kinds;
}

}  // namespace bench
