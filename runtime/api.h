/* api.h - macros for the declarations of the interface.
 *
 * MQ_API      exported by libmqnode.so.1
 * MQ_RUNTIME  provided by the companion, which the application loads first
 * MQ_BEGIN_C, MQ_END_C give the declarations between them C linkage in C++. */
#ifndef MQNODE_RUNTIME_API_H
#define MQNODE_RUNTIME_API_H

#define MQ_API __attribute__((visibility("default")))
#define MQ_RUNTIME __attribute__((visibility("default")))

#ifdef __cplusplus
#define MQ_BEGIN_C extern "C" {
#define MQ_END_C }
#else
#define MQ_BEGIN_C
#define MQ_END_C
#endif

/* Checks the size or an offset of a shared record, in C and in C++. */
#ifdef __cplusplus
#define MQ_STATIC_ASSERT(condition, text) static_assert(condition, text)
#else
#define MQ_STATIC_ASSERT(condition, text) _Static_assert(condition, text)
#endif

#endif
