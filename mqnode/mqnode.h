/* mqnode.h - includes everything: message nodes, the socket layer below them, and the queue.
 *
 * An application creates nodes (create.h), opens them (open.h), writes messages (compose.h), reads messages (read.h,
 * secure_read.h), waits on many nodes at once (wait.h), finishes queued writes (deliver.h) and deletes nodes (open.h).
 * node.h documents the conventions of all of these. Messages are records of the companion (runtime/message.h); with the
 * companion of this project, companion/host.h builds and parses them.
 *
 * Link or load the companion before libmqnode.so.1. */
#ifndef MQNODE_MQNODE_MQNODE_H
#define MQNODE_MQNODE_MQNODE_H

#include "mqnode/compose.h"
#include "mqnode/create.h"
#include "mqnode/deliver.h"
#include "mqnode/identity.h"
#include "mqnode/node.h"
#include "mqnode/open.h"
#include "mqnode/read.h"
#include "mqnode/secure_read.h"
#include "mqnode/wait.h"
#include "queue/queue.h"
#include "runtime/buffer.h"
#include "runtime/message.h"
#include "runtime/runtime.h"
#include "socksin/alarm.h"
#include "socksin/connect.h"
#include "socksin/options.h"
#include "socksin/record.h"
#include "socksin/resolve.h"
#include "socksin/sysinfo.h"
#include "socksin/transfer.h"
#include "socksin/wait.h"
#include "sockutil/sockutil.h"

#endif
