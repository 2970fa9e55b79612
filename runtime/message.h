/* message.h - messages on the wire and in memory, and the functions of the companion that convert, parse and sign them.
 *
 * A plain message is a 136-byte MsgHeader and a body of at least one byte. A signed message is a 32-byte SecureHeader,
 * the envelope, followed by the plain message and its signature. On a stream, messages follow one another without
 * padding; a datagram contains exactly one.
 *
 * The integers of both headers are unsigned 32-bit words in the sender's byte order, which bigEndian states; asciiText
 * states the sender's character set. The receiver converts. Before that it reads only the first word, which must be
 * the length of the header in either byte order.
 *
 * An application keeps a message in a PcfMessage, a record of the companion. libmqnode reads and writes only the fields
 * named here; raw.data is aligned to 4 bytes.
 *
 * Results  nonzero on success, 0 on failure */
#ifndef MQNODE_RUNTIME_MESSAGE_H
#define MQNODE_RUNTIME_MESSAGE_H

#include <stddef.h>
#include <stdint.h>

#include "runtime/api.h"
#include "runtime/buffer.h"

MQ_BEGIN_C

/* Upper bound of the length of a message in bytes, including header or envelope. Readers refuse a longer message with
 * error 2026 before they receive its body; writers refuse to send one. */
#define MQ_MAX_MESSAGE 67108864u

/* MsgHeader - the header of a plain message. Text is padded with null bytes, and not terminated if it fills its field.
 * The companion defines the fields named library. */
typedef struct MsgHeader {
  uint32_t hdrLength; /* 136 */
  uint32_t library4;
  uint32_t bigEndian; /* 1 if the sender is big-endian, else 0 */
  uint32_t asciiText; /* 1 if the sender's character set is ASCII, else 0 */
  uint8_t library16[48];
  uint32_t bodyLength; /* bytes that follow the header */
  uint32_t library68;
  char userId[12];   /* user of the sender */
  char applName[48]; /* application of the sender */
  uint32_t library132;
} MsgHeader;

MQ_STATIC_ASSERT(sizeof(MsgHeader) == 136, "MsgHeader is 136 bytes");
MQ_STATIC_ASSERT(offsetof(MsgHeader, bigEndian) == 8, "MsgHeader.bigEndian");
MQ_STATIC_ASSERT(offsetof(MsgHeader, asciiText) == 12, "MsgHeader.asciiText");
MQ_STATIC_ASSERT(offsetof(MsgHeader, bodyLength) == 64, "MsgHeader.bodyLength");
MQ_STATIC_ASSERT(offsetof(MsgHeader, userId) == 72, "MsgHeader.userId");
MQ_STATIC_ASSERT(offsetof(MsgHeader, applName) == 84, "MsgHeader.applName");

/* SecureHeader - the envelope of a signed message. */
typedef struct SecureHeader {
  uint32_t hdrLength; /* 32 */
  uint32_t version;   /* 1; 2 if the message is sealed */
  uint32_t bigEndian; /* as in MsgHeader */
  uint32_t asciiText; /* as in MsgHeader */
  uint32_t msgLength; /* bytes that follow the envelope */
  char userId[12];    /* user of the sending node */
} SecureHeader;

MQ_STATIC_ASSERT(sizeof(SecureHeader) == 32, "SecureHeader is 32 bytes");
MQ_STATIC_ASSERT(offsetof(SecureHeader, msgLength) == 16, "SecureHeader.msgLength");
MQ_STATIC_ASSERT(offsetof(SecureHeader, userId) == 20, "SecureHeader.userId");

/* PcfRawData - the raw (wire) form of a message inside a PcfMessage. */
typedef struct PcfRawData {
  void* library0;    /* used by the companion */
  uint8_t* data;     /* MsgHeader, then body */
  void* aux;         /* used by the companion */
  uint32_t capacity; /* bytes available at data */
  uint32_t length;   /* bytes of raw message at data, header included */
} PcfRawData;

MQ_STATIC_ASSERT(sizeof(PcfRawData) == 32, "PcfRawData is 32 bytes");
MQ_STATIC_ASSERT(offsetof(PcfRawData, data) == 8, "PcfRawData.data");
MQ_STATIC_ASSERT(offsetof(PcfRawData, aux) == 16, "PcfRawData.aux");
MQ_STATIC_ASSERT(offsetof(PcfRawData, capacity) == 24, "PcfRawData.capacity");
MQ_STATIC_ASSERT(offsetof(PcfRawData, length) == 28, "PcfRawData.length");

/* PcfMessage - a message in memory. The application owns the record and passes it to each read and write. */
typedef struct PcfMessage {
  uint32_t library0;
  SecureHeader secHeader;     /* secHeader.userId is the sender of the message that was read last */
  uint8_t libraryData[60012]; /* parsed content, used by the companion */
  PcfRawData raw;
} PcfMessage;

MQ_STATIC_ASSERT(sizeof(PcfMessage) == 60080, "PcfMessage is 60080 bytes");
MQ_STATIC_ASSERT(offsetof(PcfMessage, secHeader) == 4, "PcfMessage.secHeader");
MQ_STATIC_ASSERT(offsetof(PcfMessage, libraryData) == 36, "PcfMessage.libraryData");
MQ_STATIC_ASSERT(offsetof(PcfMessage, raw) == 60048, "PcfMessage.raw");

/* AlienToNative - convert the MsgHeader at raw->data in place to the byte order and character set of this host.
 * raw->length is the number of bytes present; it may be 0 after a browse. */
MQ_RUNTIME int AlienToNative(PcfRawData* raw);

/* AlienToNativeExt - convert an envelope to native form in place. */
MQ_RUNTIME int AlienToNativeExt(SecureHeader* envelope);

/* AlienPcfToNative - convert the body of a complete message, whose header is native, to native form. */
MQ_RUNTIME int AlienPcfToNative(PcfMessage* msg);

/* RawToPcf - parse the raw form, after AlienPcfToNative. */
MQ_RUNTIME int RawToPcf(PcfMessage* msg);

/* SizePcfMessage - enlarge the raw area of the record to a capacity of at least size bytes. */
MQ_RUNTIME int SizePcfMessage(PcfMessage* msg, uint32_t size);

/* DumpPcfMessage - log a message that could not be converted or parsed. */
MQ_RUNTIME int DumpPcfMessage(PcfMessage* msg);

/* VerifyMessage - check a raw message before it is signed.
 * Result  not used by the library */
MQ_RUNTIME int VerifyMessage(PcfRawData* raw);

/* mqc_sign - create the bytes of a signed message.
 *   context  in      the security context passed to the write
 *   msg      in/out  secHeader and raw are set
 *   out      out     a write descriptor, set to zero; receives a data area (CreateBuffer) and in length the number of
 *                    bytes to send: the envelope, the plain message and its signature. msgLength is the number of bytes
 *                    after the envelope
 * After a failure, DeleteBuffer must accept out. */
MQ_RUNTIME int mqc_sign(void* context, PcfMessage* msg, IoBuffer* out);

/* mqc_authenticate - check that signedPart has a valid signature for the envelope.
 *   envelope    in      in native form
 *   signedPart  in      the bytes after the envelope: data and length
 *   msg         in/out  the record with the envelope and these bytes, not converted yet. If they are encrypted, they are
 *                       decrypted in the record
 * Result  nonzero if the signature is valid, else 0 */
MQ_RUNTIME int mqc_authenticate(SecureHeader* envelope, IoBuffer* signedPart, PcfMessage* msg);

MQ_END_C

#endif
