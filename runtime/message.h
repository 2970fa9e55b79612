/* message.h - messages as they travel and as hosts hold them, and what the companion does with them.
 *
 * A plain message is a 136-byte MsgHeader and a body of at least one byte. A secure message is a 32-byte SecureHeader,
 * the envelope, and a signed plain message. On a stream messages follow one another with nothing between them; a
 * datagram carries exactly one.
 *
 * Every integer of both headers is an unsigned 32-bit word in the sender's byte order. The sender states its byte order
 * in bigEndian and its character set in asciiText; the receiver converts. Only the first word is looked at before
 * that: it must be the header's length, as read or with its four bytes reversed.
 *
 * Hosts hold every message in a PcfMessage, a record of the companion's message library. The library reads and writes
 * only the fields named here; raw.data starts at a multiple of 4 bytes. The functions below return nonzero for success
 * and 0 for failure. */
#ifndef MQNODE_RUNTIME_MESSAGE_H
#define MQNODE_RUNTIME_MESSAGE_H

#include <stddef.h>
#include <stdint.h>

#include "runtime/runtime.h"

MQ_BEGIN_C

/* A message may be at most this long, header or envelope included. Readers refuse a longer one with error 2026 before
 * they gather any of it, writers refuse to send one. Bytes. */
#define MQ_MAX_MESSAGE 67108864u

/* Plain header: first on the wire of every plain message. Text is zero-filled, without a terminator when it fills its
 * field. The fields named library are the message library's. */
typedef struct MsgHeader {
  uint32_t hdrLength; /* 136 */
  uint32_t library4;
  uint32_t bigEndian; /* 1 when the sender is big-endian, else 0 */
  uint32_t asciiText; /* 1 when the sender's text is ASCII, else 0 */
  uint8_t library16[48];
  uint32_t bodyLength; /* bytes that follow the header */
  uint32_t library68;
  char userId[12];   /* who sends */
  char applName[48]; /* which program sends */
  uint32_t library132;
} MsgHeader;

MQ_STATIC_ASSERT(sizeof(MsgHeader) == 136, "MsgHeader is 136 bytes");
MQ_STATIC_ASSERT(offsetof(MsgHeader, bigEndian) == 8, "MsgHeader.bigEndian");
MQ_STATIC_ASSERT(offsetof(MsgHeader, asciiText) == 12, "MsgHeader.asciiText");
MQ_STATIC_ASSERT(offsetof(MsgHeader, bodyLength) == 64, "MsgHeader.bodyLength");
MQ_STATIC_ASSERT(offsetof(MsgHeader, userId) == 72, "MsgHeader.userId");
MQ_STATIC_ASSERT(offsetof(MsgHeader, applName) == 84, "MsgHeader.applName");

/* Envelope: first on the wire of every secure message. */
typedef struct SecureHeader {
  uint32_t hdrLength; /* 32 */
  uint32_t version;   /* 1 */
  uint32_t bigEndian; /* as in MsgHeader */
  uint32_t asciiText; /* as in MsgHeader */
  uint32_t msgLength; /* bytes that follow the envelope */
  char userId[12];    /* user of the sending node */
} SecureHeader;

MQ_STATIC_ASSERT(sizeof(SecureHeader) == 32, "SecureHeader is 32 bytes");
MQ_STATIC_ASSERT(offsetof(SecureHeader, msgLength) == 16, "SecureHeader.msgLength");
MQ_STATIC_ASSERT(offsetof(SecureHeader, userId) == 20, "SecureHeader.userId");

/* The raw (wire) form of a message inside a PcfMessage. */
typedef struct PcfRawData {
  void* library0;    /* the message library's */
  uint8_t* data;     /* MsgHeader, then body */
  void* aux;         /* the message library's */
  uint32_t capacity; /* bytes available at data */
  uint32_t length;   /* bytes of raw message at data, header included */
} PcfRawData;

MQ_STATIC_ASSERT(sizeof(PcfRawData) == 32, "PcfRawData is 32 bytes");
MQ_STATIC_ASSERT(offsetof(PcfRawData, data) == 8, "PcfRawData.data");
MQ_STATIC_ASSERT(offsetof(PcfRawData, aux) == 16, "PcfRawData.aux");
MQ_STATIC_ASSERT(offsetof(PcfRawData, capacity) == 24, "PcfRawData.capacity");
MQ_STATIC_ASSERT(offsetof(PcfRawData, length) == 28, "PcfRawData.length");

/* A message in the hands of a host. The record belongs to the host, which gives it to every read and write. */
typedef struct PcfMessage {
  uint32_t library0;
  SecureHeader secHeader;     /* after every delivered message, secHeader.userId says who sent it */
  uint8_t libraryData[60012]; /* the parsed content, the message library's */
  PcfRawData raw;
} PcfMessage;

MQ_STATIC_ASSERT(sizeof(PcfMessage) == 60080, "PcfMessage is 60080 bytes");
MQ_STATIC_ASSERT(offsetof(PcfMessage, secHeader) == 4, "PcfMessage.secHeader");
MQ_STATIC_ASSERT(offsetof(PcfMessage, libraryData) == 36, "PcfMessage.libraryData");
MQ_STATIC_ASSERT(offsetof(PcfMessage, raw) == 60048, "PcfMessage.raw");

/* AlienToNative - convert the MsgHeader at raw->data in place to the host's byte order and character set, as its own
 * bigEndian and asciiText say. raw->length says how many bytes are present; a record that was browsed may say 0. */
MQ_RUNTIME int AlienToNative(PcfRawData* raw);

/* AlienToNativeExt - convert an envelope in place to native form. */
MQ_RUNTIME int AlienToNativeExt(SecureHeader* envelope);

/* AlienPcfToNative - convert the body of a complete message with a native header to the host's form. */
MQ_RUNTIME int AlienPcfToNative(PcfMessage* msg);

/* RawToPcf - parse the raw form into the record's content, after AlienPcfToNative. */
MQ_RUNTIME int RawToPcf(PcfMessage* msg);

/* SizePcfMessage - enlarge the record's raw area so that its capacity is at least size bytes. */
MQ_RUNTIME int SizePcfMessage(PcfMessage* msg, uint32_t size);

/* DumpPcfMessage - write a diagnostic dump of a record that could not be converted or parsed. */
MQ_RUNTIME int DumpPcfMessage(PcfMessage* msg);

/* VerifyMessage - look over a raw message just before it is signed; the result changes nothing. */
MQ_RUNTIME int VerifyMessage(PcfRawData* raw);

/* mqc_sign - produce the bytes to send for a signed message.
 *   context  in      the security context that the caller of the write gave
 *   msg      in/out  secHeader and raw filled in
 *   out      out     zero-filled write descriptor; receives a data area (CreateBuffer) with length the bytes to send:
 *                    the envelope first, then the signed plain message, msgLength covering all after the envelope
 * After a failure out is fit for DeleteBuffer. */
MQ_RUNTIME int mqc_sign(void* context, PcfMessage* msg, IoBuffer* out);

/* mqc_authenticate - nonzero when signedPart carries a valid signature for the envelope.
 *   envelope    in      native form
 *   signedPart  in      a view of the bytes after the envelope: data, length
 *   msg         in/out  the record that holds the envelope and those bytes, not yet converted */
MQ_RUNTIME int mqc_authenticate(SecureHeader* envelope, IoBuffer* signedPart, PcfMessage* msg);

MQ_END_C

#endif
