// record.hh - what every operation of the socket layer does the same way: trace points and failure reports.
#pragma once

#include "socksin/record.h"

namespace mq {

// Keeps a descriptor from programs that the process starts.
void CloseOnExec(int fd);

// Runs a trace point on the record.
inline void RunSocketTrace(const char* point, SockRec* rec) {
  if (rec->onTrace != nullptr) rec->onTrace(point, rec);
}

// Calls the record's error callback for the code already in error and keeps its result.
inline void CallErrorCallback(SockRec* rec) { rec->errorResult = rec->onError != nullptr ? rec->onError(rec) : 0; }

// Reports a failure; the result is the failed operation's.
inline int ReportFailure(SockRec* rec, int code) {
  rec->error = code;
  CallErrorCallback(rec);
  return 0;
}

}  // namespace mq
