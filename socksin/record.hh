// record.hh - helpers shared by the socket layer: trace points and failure reports.
#pragma once

#include "socksin/record.h"

namespace mq {

// Sets the close-on-exec flag: programs started by this process do not inherit fd.
void CloseOnExec(int fd);

// Runs a trace point on the record.
inline void RunSocketTrace(const char* point, SockRec* rec) {
  if (rec->onTrace != nullptr) rec->onTrace(point, rec);
}

// Calls the record's error callback, which finds the code in rec->error, and stores its result.
inline void CallErrorCallback(SockRec* rec) { rec->errorResult = rec->onError != nullptr ? rec->onError(rec) : 0; }

// Sets error and calls the error callback. Always returns 0, the result of the failed operation.
inline int ReportFailure(SockRec* rec, int code) {
  rec->error = code;
  CallErrorCallback(rec);
  return 0;
}

}  // namespace mq
