// wait.cc - turns socket lists into descriptor sets, waits in one select, and turns the sets back into lists.
// Not here: nodes (mqnode/wait.cc).
// Invariant: no bit is set or tested outside the sets in use. The sets are the record's own 128 bytes each until a
// descriptor of 1024 or more turns up; from then on they are one block sized from the highest descriptor.
#include "socksin/wait.h"

#include <sys/select.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "socksin/record.hh"

namespace {

using Word = unsigned long;
constexpr size_t kWordBits = 64;
constexpr int kUsecPerMsec = 1000;
constexpr int kMostDescriptors = 1 << 28;  // no process has so many

// The three sets of one wait.
struct Sets {
  Word* read;
  Word* write;
  Word* except;
  size_t bits;  // descriptors below this fit
  int highest;  // highest descriptor seen
  void* block;  // the sets' own memory, null while they are the record's

  // False for a negative descriptor too.
  bool Fits(int fd) const { return static_cast<size_t>(fd) < bits; }
};

// What one family watches and how it names what it found.
struct Family {
  bool writes;
  const char* ready;
  const char* write;
  const char* exception;
};

constexpr Family kPost = {false, "PostSocket:Ready", nullptr, "PostSocket:Exception"};
constexpr Family kNPost = {true, "NPostSocket:Ready", "NPostSocket:Write", "NPostSocket:Exception"};

// The descriptors of the first sockets, as the sets were built from them. Most sockets of a wait are not ready: with
// these at hand, collecting need not visit their records, each of which lies on a page of its own.
constexpr int kKnown = SOCK_POST_SIZE - 1;
struct Known {
  int count = 0;
  int fd[kKnown];
};

// Where a descriptor's bit is in a set.
struct Place {
  size_t word;
  Word bit;

  explicit Place(int fd)
      : word(static_cast<unsigned>(fd) / kWordBits), bit(1UL << (static_cast<unsigned>(fd) % kWordBits)) {}
};

void Add(Word* set, Place place) { set[place.word] |= place.bit; }

bool Has(const Word* set, Place place) { return (set[place.word] & place.bit) != 0; }

Sets RecordSets(const SockPostData* work) {
  memset(work->readSet, 0, sizeof(fd_set));
  memset(work->exceptSet, 0, sizeof(fd_set));
  memset(work->writeSet, 0, sizeof(fd_set));
  const auto words = [](fd_set* set) { return reinterpret_cast<Word*>(set); };
  return {words(work->readSet), words(work->writeSet), words(work->exceptSet), FD_SETSIZE, 0, nullptr};
}

// Moves the sets into a larger block, with room for fd and as much again.
bool Grow(Sets* sets, int fd) {
  if (fd >= kMostDescriptors) return false;
  const size_t words = static_cast<size_t>(fd) * 2 / kWordBits + 1;
  auto* const block = static_cast<Word*>(calloc(words * 3, sizeof(Word)));
  if (block == nullptr) return false;
  const size_t used = sets->bits / kWordBits * sizeof(Word);
  const Word* const old[] = {sets->read, sets->write, sets->except};
  for (size_t i = 0; i < 3; ++i) memcpy(block + i * words, old[i], used);
  free(sets->block);
  *sets = {block, block + words, block + 2 * words, words * kWordBits, sets->highest, block};
  return true;
}

// Makes fd, which is not negative, a descriptor that the sets can hold.
bool Reach(Sets* sets, int fd) {
  if (!sets->Fits(fd) && !Grow(sets, fd)) return false;
  if (fd > sets->highest) sets->highest = fd;
  return true;
}

bool AddWaitingWrites(Sets* sets, const SockPostData* work) {
  for (int i = 0; i < work->size - 1 && work->writable[i] != nullptr; ++i) {
    const int fd = work->writable[i]->fd;
    if (fd < 0) continue;
    if (!Reach(sets, fd)) return false;
    Add(sets->write, Place(fd));
  }
  return true;
}

bool AddSockets(Sets* sets, const SockPostData* work, bool writes, Known* known) {
  SockRec** const list = work->sockets;
  const int last = work->size - 1;
  const bool readable = work->readable != nullptr;
  const bool exceptional = work->exceptional != nullptr;
  for (int i = 0; i < last && list[i] != nullptr; ++i) {
    const SockRec* const rec = list[i];
    const int fd = rec->fd;
    if (i < kKnown) known->fd[known->count++] = fd;
    if (fd < 0) continue;
    if (!Reach(sets, fd)) return false;
    const Place place(fd);
    if (readable) Add(sets->read, place);
    if (exceptional) Add(sets->except, place);
    if (writes && rec->connected == 0 && rec->type == SOCK_TYPE_STREAM) Add(sets->write, place);
  }
  return true;
}

bool Select(Sets* sets, const PostTimeout* timeout, int* status) {
  timeval limit = {static_cast<time_t>(timeout->sec), static_cast<suseconds_t>(timeout->msec * kUsecPerMsec)};
  const auto set = [](Word* words) { return reinterpret_cast<fd_set*>(words); };
  const int found = select(sets->highest + 1, set(sets->read), set(sets->write), set(sets->except), &limit);
  if (found == -1) *status = errno;
  if (found == 0) *status = SOCK_WAIT_TIMEOUT;
  return found > 0;
}

void MarkWritable(SockRec* rec, SockRec** list, int* count, const char* point) {
  list[(*count)++] = rec;
  rec->connected = 1;
  mq::RunSocketTrace(point, rec);
}

// Keeps the sockets of the writable list that are ready, in place and in order.
int CollectWaitingWrites(const Sets& sets, SockPostData* work, const char* point) {
  int kept = 0;
  for (int i = 0; work->writable[i] != nullptr; ++i) {
    SockRec* const rec = work->writable[i];
    if (sets.Fits(rec->fd) && Has(sets.write, Place(rec->fd))) MarkWritable(rec, work->writable, &kept, point);
  }
  return kept;
}

void Collect(const Sets& sets, SockPostData* work, const Family& family, const Known& known) {
  const bool writes = family.writes && work->writable != nullptr;
  int readable = 0;
  int exceptional = 0;
  int writable = writes ? CollectWaitingWrites(sets, work, family.write) : 0;
  for (int i = 0; work->sockets[i] != nullptr; ++i) {
    const int fd = i < known.count ? known.fd[i] : work->sockets[i]->fd;
    if (!sets.Fits(fd)) continue;
    const Place place(fd);
    if (((sets.read[place.word] | sets.except[place.word] | sets.write[place.word]) & place.bit) == 0) continue;
    SockRec* const rec = work->sockets[i];
    if (rec->fd != fd) continue;  // a trace callback has closed it or opened another
    if (Has(sets.read, place) && work->readable != nullptr) {
      work->readable[readable++] = rec;
      mq::RunSocketTrace(family.ready, rec);
    } else if (Has(sets.except, place) && work->exceptional != nullptr) {
      work->exceptional[exceptional++] = rec;
      mq::RunSocketTrace(family.exception, rec);
    } else if (writes && Has(sets.write, place) && rec->connected == 0) {
      MarkWritable(rec, work->writable, &writable, family.write);
    }
  }
  if (work->exceptional != nullptr) work->exceptional[exceptional] = nullptr;
  if (work->readable != nullptr) work->readable[readable] = nullptr;
  if (writes) work->writable[writable] = nullptr;
}

int Wait(SockPostData* work, const PostTimeout* timeout, int* status, const Family& family) {
  *status = 0;
  const bool writes = family.writes && work->writable != nullptr;
  Sets sets = RecordSets(work);
  Known known;
  int result = 0;
  if ((writes && !AddWaitingWrites(&sets, work)) || !AddSockets(&sets, work, writes, &known)) {
    *status = ENOMEM;
  } else if (Select(&sets, timeout, status)) {
    Collect(sets, work, family, known);
    result = 1;
  }
  free(sets.block);
  return result;
}

}  // namespace

int InitSocketPostData(SockPostData* work, int size) {
  *work = SockPostData{};
  work->size = size;
  const size_t listBytes = static_cast<size_t>(static_cast<int64_t>(size)) * sizeof(SockRec*);
  for (SockRec*** list : {&work->sockets, &work->readable, &work->writable, &work->exceptional}) {
    *list = static_cast<SockRec**>(malloc(listBytes));
    if (*list == nullptr) return 0;
  }
  for (fd_set** set : {&work->readSet, &work->writeSet, &work->exceptSet}) {
    *set = static_cast<fd_set*>(malloc(sizeof(fd_set)));
    if (*set == nullptr) return 0;
  }
  return 1;
}

void FreeSocketPostData(SockPostData* work) {
  work->size = 0;
  for (SockRec*** list : {&work->sockets, &work->readable, &work->writable, &work->exceptional}) {
    free(*list);
    *list = nullptr;
  }
  for (fd_set** set : {&work->readSet, &work->writeSet, &work->exceptSet}) {
    free(*set);
    *set = nullptr;
  }
}

int PostSocket(SockPostData* work, const PostTimeout* timeout, int* status) {
  return Wait(work, timeout, status, kPost);
}

int NPostSocket(SockPostData* work, const PostTimeout* timeout, int* status) {
  return Wait(work, timeout, status, kNPost);
}
