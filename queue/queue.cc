// queue.cc - creates and releases queues and their entries, and links the entries.
// Not here: the items, and when a node queues them (mqnode/deliver.cc).
// Invariant: head and tail are both null exactly when count is 0, and count is the number of entries from head on.
#include "queue/queue.h"

#include <cstdio>

#include "runtime/runtime.h"

namespace {

constexpr int kNoLimit = -1;

bool IsNull(const Queue* q, const char* function) {
  if (q != nullptr) return false;
  printf("%s: null Queue input\n", function);
  return true;
}

QueueEntry* NewEntry(void* item, const char* tag) {
  void* block = nullptr;
  if (!fNewMemory(&block, sizeof(QueueEntry), tag)) return nullptr;
  auto* entry = static_cast<QueueEntry*>(block);
  entry->item = item;
  entry->next = nullptr;
  return entry;
}

}  // namespace

Queue* Qalloc(void) {
  void* block = nullptr;
  if (!fNewMemory(&block, sizeof(Queue), "QALLOC")) return nullptr;
  auto* q = static_cast<Queue*>(block);
  *q = Queue{nullptr, nullptr, nullptr, 0, kNoLimit};
  return q;
}

void Qfree(Queue** pq) {
  if (pq == nullptr || *pq == nullptr) return;
  for (QueueEntry* entry = (*pq)->head; entry != nullptr;) {
    QueueEntry* const next = entry->next;
    if (entry->item != nullptr) FreeMemory(entry->item);
    FreeMemory(entry);
    entry = next;
  }
  FreeMemory(*pq);
  *pq = nullptr;
}

void Qput(Queue* q, void* item) {
  if (IsNull(q, "Qput")) return;
  QueueEntry* const entry = NewEntry(item, "QPUT");
  if (entry == nullptr) return;
  QueueEntry* const last = q->tail;
  q->tail = entry;
  q->count += 1;
  if (last != nullptr) last->next = entry;
  if (q->head == nullptr) q->head = entry;
}

void QputHigh(Queue* q, void* item) { Qput(q, item); }

void Qputhead(Queue* q, void* item) {
  if (IsNull(q, "Qputhead")) return;
  QueueEntry* const entry = NewEntry(item, "QPUTHEAD");
  if (entry == nullptr) return;
  q->count += 1;
  QueueEntry* const first = q->head;
  q->head = entry;
  if (first != nullptr) {
    entry->next = first;
  } else {
    q->tail = entry;
  }
}

void* Qget(Queue* q) {
  if (IsNull(q, "Qget")) return nullptr;
  QueueEntry* const entry = q->head;
  if (entry == nullptr) return nullptr;
  q->head = entry->next;
  q->count -= 1;
  if (q->count == 0) q->head = q->tail = nullptr;
  void* const item = entry->item;
  FreeMemory(entry);
  return item;
}

void Qremove(Queue* q, void* item) {
  if (q == nullptr) return;
  QueueEntry* before = nullptr;
  for (QueueEntry* entry = q->head; entry != nullptr;) {
    QueueEntry* const next = entry->next;
    if (entry->item == item) {
      (before != nullptr ? before->next : q->head) = next;
      if (q->tail == entry) q->tail = before;
      q->count -= 1;
      FreeMemory(entry);
    } else {
      before = entry;
    }
    entry = next;
  }
}

void Qstart(Queue* q) {
  if (q != nullptr) q->cursor = q->head;
}

void* Qnext(Queue* q) {
  if (q == nullptr || q->count == 0 || q->cursor == nullptr) return nullptr;
  void* const item = q->cursor->item;
  q->cursor = q->cursor->next;
  return item;
}

int Qdepth(Queue* q) { return q != nullptr ? q->count : 0; }

void SetQLimit(Queue* q, int limit) {
  if (q != nullptr) q->limit = limit;
}

int GetQLimit(Queue* q) { return q != nullptr ? q->limit : kNoLimit; }

int IsQReady(Queue* q) { return q == nullptr || q->limit == kNoLimit || q->count <= q->limit; }
