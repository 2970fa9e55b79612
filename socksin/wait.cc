// wait.cc - turns socket lists into descriptor sets, waits in one select, and turns the sets back into lists.
// Not here: nodes (mqnode/wait.cc).
// Invariant: no bit is set or tested outside the sets in use. These are the fd_sets of the work record, 128 bytes each,
// until a file descriptor of 1024 or more is listed; then they are in one allocated block that grows with the highest
// descriptor.
#include "socksin/wait.h"

#include <sys/select.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "socksin/record.hh"

namespace {

using Word = unsigned long;
constexpr size_t kWordBits = 64;
constexpr int kUsecPerMsec = 1000;
constexpr int kMaxDescriptors = 1 << 28;  // more than any process can have

// The three sets of one wait, and space for their union.
struct Sets {
  Word* read;
  Word* write;
  Word* except;
  Word* any;
  size_t bits;  // descriptors below this fit
  int highest;  // highest descriptor seen
  void* block;  // allocated memory of the sets; null while they are those of the work record

  // Also false for a negative descriptor.
  bool Fits(int fd) const { return static_cast<size_t>(fd) < bits; }
};

// Differences between PostSocket and NPostSocket: whether writes are watched, and the names of the trace points.
struct Family {
  bool writes;
  const char* ready;
  const char* write;
  const char* exception;
};

constexpr Family kPost = {false, "PostSocket:Ready", nullptr, "PostSocket:Exception"};
constexpr Family kNPost = {true, "NPostSocket:Ready", "NPostSocket:Write", "NPostSocket:Exception"};

// Memory of a wait on the stack. Most sockets of a wait are not ready. Because the descriptors of the first kKnown ones
// are noted here, Collect does not access the records of those that are not ready, which would cost a cache miss each.
constexpr size_t kKnown = SOCK_POST_SIZE - 1;
struct Scratch {
  int fd[kKnown];
  Word any[FD_SETSIZE / kWordBits];
};

// Position of a descriptor's bit in a set.
struct Position {
  size_t word;
  Word bit;

  explicit Position(int fd)
      : word(static_cast<unsigned>(fd) / kWordBits), bit(1UL << (static_cast<unsigned>(fd) % kWordBits)) {}
};

void Add(Word* set, Position position) { set[position.word] |= position.bit; }

bool Has(const Word* set, Position position) { return (set[position.word] & position.bit) != 0; }

// The same in fewer instructions, for the loop over all sockets of a wait.
bool HasDescriptor(const Word* set, size_t fd) { return (set[fd / kWordBits] >> (fd % kWordBits) & 1) != 0; }

// Clears word by word: the compiler's code for a memset of this size takes longer to start than to run.
Word* Cleared(fd_set* set) {
  Word* const words = reinterpret_cast<Word*>(set);
  for (size_t i = 0; i < FD_SETSIZE / kWordBits; i += 4) {
    words[i] = words[i + 1] = words[i + 2] = words[i + 3] = 0;
  }
  return words;
}

Sets RecordSets(const SockPostData* work, Scratch* scratch) {
  return {
      Cleared(work->readSet), Cleared(work->writeSet), Cleared(work->exceptSet), scratch->any, FD_SETSIZE, 0, nullptr};
}

// Moves the sets into a larger block, for descriptors up to twice fd. Returns false if there is no memory.
bool Grow(Sets* sets, int fd) {
  if (fd >= kMaxDescriptors) return false;
  const size_t words = static_cast<size_t>(fd) * 2 / kWordBits + 1;
  auto* const block = static_cast<Word*>(calloc(words * 4, sizeof(Word)));
  if (block == nullptr) return false;
  const size_t used = sets->bits / kWordBits * sizeof(Word);
  const Word* const old[] = {sets->read, sets->write, sets->except};
  for (size_t i = 0; i < 3; ++i) memcpy(block + i * words, old[i], used);
  free(sets->block);
  *sets = {block, block + words, block + 2 * words, block + 3 * words, words * kWordBits, sets->highest, block};
  return true;
}

// Enlarges the sets if fd, which is not negative, does not fit, and updates the highest descriptor. Returns false if
// there is no memory.
bool EnsureFits(Sets* sets, int fd) {
  if (!sets->Fits(fd) && !Grow(sets, fd)) return false;
  if (fd > sets->highest) sets->highest = fd;
  return true;
}

bool AddWaitingWrites(Sets* sets, const SockPostData* work) {
  for (int i = 0; i < work->size - 1 && work->writable[i] != nullptr; ++i) {
    const int fd = work->writable[i]->fd;
    if (fd < 0) continue;
    if (!EnsureFits(sets, fd)) return false;
    Add(sets->write, Position(fd));
  }
  return true;
}

// A stream socket that is not connected yet becomes writable when its connect completes.
bool IsConnecting(const SockRec* rec) { return rec->connected == 0 && rec->type == SOCK_TYPE_STREAM; }

// Adds the sockets list[index] to list[last - 1] to the sets and notes their descriptors in fds. Stops at the end of
// the list and at a descriptor that does not fit; returns the index at which it stopped. The loop runs for every socket
// of every wait: the local copies keep its variables in registers.
size_t AddFitting(Sets* sets, SockRec* const* list, size_t index, size_t last, int* fds, bool writes) {
  const Sets known = *sets;
  int highest = known.highest;
  for (; index < last && list[index] != nullptr; ++index) {
    const SockRec* const rec = list[index];
    const int fd = rec->fd;
    if (!known.Fits(fd)) break;
    fds[index] = fd;
    highest = fd > highest ? fd : highest;
    const Position position(fd);
    Add(known.read, position);
    Add(known.except, position);
    if (writes && IsConnecting(rec)) Add(known.write, position);
  }
  sets->highest = highest;
  return index;
}

// Adds one socket, enlarging the sets if necessary. Returns false if there is no memory.
bool AddSocket(Sets* sets, const SockRec* rec, bool writes) {
  if (rec->fd < 0) return true;
  if (!EnsureFits(sets, rec->fd)) return false;
  const Position position(rec->fd);
  Add(sets->read, position);
  Add(sets->except, position);
  if (writes && IsConnecting(rec)) Add(sets->write, position);
  return true;
}

// Adds all sockets. Returns their number, or -1 if there is no memory.
int AddSockets(Sets* sets, const SockPostData* work, Scratch* scratch, bool writes) {
  SockRec* const* const list = work->sockets;
  const auto last = static_cast<size_t>(work->size - 1);
  size_t index = 0;
  for (;; ++index) {
    index = AddFitting(sets, list, index, std::min(last, kKnown), scratch->fd, writes);
    if (index >= last || list[index] == nullptr) break;
    if (!AddSocket(sets, list[index], writes)) return -1;
    if (index < kKnown) scratch->fd[index] = list[index]->fd;
  }
  // A condition without a result list is not watched.
  const size_t used = (static_cast<size_t>(sets->highest) / kWordBits + 1) * sizeof(Word);
  if (work->readable == nullptr) memset(sets->read, 0, used);
  if (work->exceptional == nullptr) memset(sets->except, 0, used);
  return static_cast<int>(index);
}

bool Select(Sets* sets, const PostTimeout* timeout, int* status) {
  timeval limit = {static_cast<time_t>(timeout->sec), static_cast<suseconds_t>(timeout->msec * kUsecPerMsec)};
  const auto set = [](Word* words) { return reinterpret_cast<fd_set*>(words); };
  const int found = select(sets->highest + 1, set(sets->read), set(sets->write), set(sets->except), &limit);
  if (found == -1) *status = errno;
  if (found == 0) *status = SOCK_WAIT_TIMEOUT;
  return found > 0;
}

// The number of sockets in each result list of a wait.
struct Ready {
  int capacity;  // of each list, without the null pointer at its end
  int readable = 0;
  int exceptional = 0;
  int writable = 0;
  bool traced = false;  // a callback ran: it may have changed the lists and the records

  void Add(SockRec** list, int* count, SockRec* rec) const {
    if (*count < capacity) list[(*count)++] = rec;
  }

  void End(SockRec** list, int count) const {
    if (list != nullptr) list[count] = nullptr;
  }

  void Trace(const char* point, SockRec* rec) {
    if (rec->onTrace == nullptr) return;
    traced = true;
    rec->onTrace(point, rec);
  }
};

void MarkWritable(SockRec* rec, SockPostData* work, Ready* ready, const char* point) {
  ready->Add(work->writable, &ready->writable, rec);
  rec->connected = 1;
  ready->Trace(point, rec);
}

// Reduces the writable list to the sockets that are ready, in place and in order.
void CollectWaitingWrites(const Sets& sets, SockPostData* work, Ready* ready, const char* point) {
  for (int i = 0; work->writable[i] != nullptr; ++i) {
    SockRec* const rec = work->writable[i];
    if (sets.Fits(rec->fd) && Has(sets.write, Position(rec->fd))) MarkWritable(rec, work, ready, point);
  }
}

void Unite(const Sets& sets) {
  const size_t words = static_cast<size_t>(sets.highest) / kWordBits + 1;
  for (size_t i = 0; i < words; ++i) sets.any[i] = sets.read[i] | sets.write[i] | sets.except[i];
}

void CollectOne(const Sets& sets, SockPostData* work, const Family& family, SockRec* rec, Ready* ready) {
  if (!sets.Fits(rec->fd)) return;
  const Position position(rec->fd);
  if (Has(sets.read, position) && work->readable != nullptr) {
    ready->Add(work->readable, &ready->readable, rec);
    ready->Trace(family.ready, rec);
  } else if (Has(sets.except, position) && work->exceptional != nullptr) {
    ready->Add(work->exceptional, &ready->exceptional, rec);
    ready->Trace(family.exception, rec);
  } else if (family.writes && work->writable != nullptr && Has(sets.write, position) && rec->connected == 0) {
    MarkWritable(rec, work, ready, family.write);
  }
}

// The first index from i on whose noted descriptor is in one of the sets; end if there is none.
size_t NextNoted(const Sets& sets, const Scratch& scratch, size_t i, size_t end) {
  const Word* const any = sets.any;
  const size_t bits = sets.bits;
  for (; i < end; ++i) {
    const auto fd = static_cast<size_t>(scratch.fd[i]);
    if (fd < bits && HasDescriptor(any, fd)) break;
  }
  return i;
}

// Walks the list of sockets to its null pointer. A trace callback may change the lists and records, and its changes
// count from then on: the noted descriptors of the first count sockets are used only until a callback has run.
void Collect(const Sets& sets, SockPostData* work, const Family& family, const Scratch& scratch, size_t count) {
  const bool writes = family.writes && work->writable != nullptr;
  Ready ready = {work->size - 1};
  if (writes) CollectWaitingWrites(sets, work, &ready, family.write);
  Unite(sets);
  const size_t known = std::min(count, kKnown);
  SockRec* const* const list = work->sockets;
  size_t i = 0;
  for (; i < known && !ready.traced; ++i) {
    i = NextNoted(sets, scratch, i, known);
    if (i == known || list[i] == nullptr) break;
    CollectOne(sets, work, family, list[i], &ready);
  }
  for (; list[i] != nullptr; ++i) CollectOne(sets, work, family, list[i], &ready);
  ready.End(work->exceptional, ready.exceptional);
  ready.End(work->readable, ready.readable);
  if (writes) ready.End(work->writable, ready.writable);
}

// Applications may interpose free: it is never called with a null pointer.
void Free(void* block) {
  if (block != nullptr) free(block);
}

int Wait(SockPostData* work, const PostTimeout* timeout, int* status, const Family& family) {
  *status = 0;
  if (work->size < 1) {  // the lists cannot even contain a null pointer
    *status = EINVAL;
    return 0;
  }
  const bool writes = family.writes && work->writable != nullptr;
  Scratch scratch;
  Sets sets = RecordSets(work, &scratch);
  const bool added = !writes || AddWaitingWrites(&sets, work);
  const int count = added ? AddSockets(&sets, work, &scratch, writes) : -1;
  int result = 0;
  if (count < 0) {
    *status = ENOMEM;
  } else if (Select(&sets, timeout, status)) {
    Collect(sets, work, family, scratch, static_cast<size_t>(count));
    result = 1;
  }
  Free(sets.block);
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
  for (SockRec** list : {work->sockets, work->readable, work->writable, work->exceptional}) Free(list);
  for (fd_set* set : {work->readSet, work->writeSet, work->exceptSet}) Free(set);
  *work = SockPostData{};
}

int PostSocket(SockPostData* work, const PostTimeout* timeout, int* status) {
  return Wait(work, timeout, status, kPost);
}

int NPostSocket(SockPostData* work, const PostTimeout* timeout, int* status) {
  return Wait(work, timeout, status, kNPost);
}
