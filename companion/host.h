/* host.h - what a host calls in libmqcompanion.so.1, the companion runtime of this project.
 *
 * libmqnode calls the companion through runtime/runtime.h and runtime/message.h. This header is the other side: build
 * and read messages, sign and authenticate, read the memory account, make allocations fail, choose the log.
 *
 * Conventions, kept by every function here unless its lines say otherwise
 *   results   1 success, 0 failure
 *   pointers  required and not null
 *   sizes     bytes; times are milliseconds since 1970-01-01 UTC; text is terminated, ASCII or a superset of it
 *   errors    a function with (char *error, size_t size) writes one line without a newline there when it fails, cut to
 *             size, and an empty text when it succeeds; error may be null, size 0
 *   threads   one record is used by one thread at a time; what is process-wide (account, ring, window, clock, log) may
 *             be used from any thread
 *   blocking  nothing here waits; only the functions that name a file use the file system */
#ifndef MQNODE_COMPANION_HOST_H
#define MQNODE_COMPANION_HOST_H

#include <stddef.h>
#include <stdint.h>

#include "runtime/message.h"

MQ_BEGIN_C

/* ---- Memory account ----
 *
 * Every allocation of the companion is counted under a tag: blocks of fNewMemory under the tag they were asked with,
 * data areas of IoBuffers under "buffer", raw areas of PcfMessages under "message", records of mqc_message_new under
 * "PcfMessage", signers under "signer", the ring of users under "ring", the memory of seen messages under "replay", key
 * files while they are read under "file". */

typedef struct MqcMemory {
  uint64_t live_blocks;  /* allocated and not yet released */
  uint64_t total_blocks; /* allocated since the process began */
  uint64_t peak_blocks;  /* highest live_blocks seen */
  uint64_t live_bytes;   /* bytes asked for by the live blocks */
} MqcMemory;

/* mqc_memory - read the account of one tag, or of everything.
 *   tag   in   name of the tag, compared as text; null for everything. The peak of everything is the sum of the peaks
 *              of the tags: never below the true peak
 *   out   out  the counters; all 0 for a tag nobody has used
 * Result   1; 0 when nobody has used the tag
 * Other threads may allocate meanwhile: each counter is right by itself, not all of them for one moment. */
MQ_RUNTIME int mqc_memory(const char* tag, MqcMemory* out);

/* mqc_memory_tag - name of the index-th tag in use, counted from 0; null past the last one.
 * The text lives as long as the process. Tags never go away. At most 64 tags are told apart; blocks with further tags
 * are counted under "(other)", blocks without a tag under "(none)". */
MQ_RUNTIME const char* mqc_memory_tag(uint32_t index);

/* mqc_allocations - allocations attempted since the process began, the failed ones included. */
MQ_RUNTIME uint64_t mqc_allocations(void);

/* mqc_fail_allocation - make a coming allocation of the companion fail, so that a host can test its error paths.
 *   nth      in  1 the next allocation of any thread, 2 the one after it, and so on; 0 switches failing off
 *   onwards  in  0: that one fails and the switch is off again; nonzero: that one and all after it fail until switched
 *                off
 * Counted are fNewMemory, CreateBuffer, SizeBuffer and SizePcfMessage when they grow, and whatever this header's
 * functions allocate. To walk a whole scenario, let n = 1, 2, 3 ... until a run makes fewer than n allocations. */
MQ_RUNTIME void mqc_fail_allocation(uint64_t nth, int onwards);

/* ---- Messages: records ----
 *
 * A PcfMessage holds one message: its raw form (as on the wire) in raw, the index of its parameters in the record's own
 * area. A record is used for any number of messages, written and read in any order; once its raw area is as large as
 * the largest message, no call allocates. Do not copy a record: both copies would name one raw area. */

/* Most parameters of one message: what the record's own area holds. One more is an error, never a truncation. */
#define MQC_MAX_PARAMS 3740u

/* mqc_message_new - allocate a record.
 *   capacity  in  first size of the raw area, header included; raised to 136, at most MQ_MAX_MESSAGE; it grows by
 *                 itself
 * Result   the record, without a message, for mqc_message_free; null without memory */
MQ_RUNTIME PcfMessage* mqc_message_new(uint32_t capacity);

/* mqc_message_free - release a record of mqc_message_new with its raw area. msg may be null. */
MQ_RUNTIME void mqc_message_free(PcfMessage* msg);

/* mqc_message_init - prepare a record that the caller owns: on the stack, in a larger record, static.
 * It has no raw area yet and allocates nothing. mnBrowse needs one: call SizePcfMessage(msg, 136) or more first. What
 * the record held before is neither read nor released. A record of zero bytes is prepared too. */
MQ_RUNTIME void mqc_message_init(PcfMessage* msg);

/* mqc_message_release - release the raw area of a record of mqc_message_init. The record is prepared again. A raw area
 * that the host has put there itself (raw.data, raw.capacity) is not released, here and when it grows. */
MQ_RUNTIME void mqc_message_release(PcfMessage* msg);

/* ---- Messages: writing ----
 *
 *   mqc_begin(msg, 7) && mqc_add_text(msg, 1, "hello") && mqc_add_int32(msg, 2, -5) && mnWrite(msg, node)
 *
 * After each successful call raw is a complete message (room of 136 bytes for the header, then the body), fit for any
 * of the write functions. A failed add leaves the message as it was; mqc_message_error says why. */

/* mqc_begin - start a new message in the record; what it held is gone.
 *   command  in  what the message is about; its meaning is the hosts' own
 * Result   1; 0 without memory for the raw area */
MQ_RUNTIME int mqc_begin(PcfMessage* msg, uint32_t command);

/* mqc_add_... - append one parameter.
 *   id      in  names the parameter; ids may repeat, their order is kept
 *   text    in  terminated; travels in the character set of its sender and arrives in the receiver's
 *   bytes   in  length bytes that arrive as they are; may be null when length is 0
 * Result   1; 0 for a record without a begun or read message, without memory, beyond MQC_MAX_PARAMS parameters or
 *          beyond MQ_MAX_MESSAGE
 * text and bytes may not lie in the record's own raw area: it may move. */
MQ_RUNTIME int mqc_add_int32(PcfMessage* msg, uint32_t id, int32_t value);
MQ_RUNTIME int mqc_add_int64(PcfMessage* msg, uint32_t id, int64_t value);
MQ_RUNTIME int mqc_add_text(PcfMessage* msg, uint32_t id, const char* text);
MQ_RUNTIME int mqc_add_bytes(PcfMessage* msg, uint32_t id, const void* bytes, uint32_t length);

/* ---- Messages: reading ----
 *
 * After a successful read (or while building) the content is walked in place. The views point into the raw area: they
 * hold until the next call that writes to the record. After a failed read the record has no parameters. */

typedef enum MqcType { MQC_INT32 = 1, MQC_INT64 = 2, MQC_TEXT = 3, MQC_BYTES = 4 } MqcType;

typedef struct MqcParam {
  uint32_t id;
  uint32_t type;        /* an MqcType */
  uint32_t length;      /* bytes of the value: 4, 8, length of the text without its terminator, number of bytes */
  int64_t number;       /* MQC_INT32 and MQC_INT64, else 0 */
  const char* text;     /* MQC_TEXT, terminated, else null */
  const uint8_t* bytes; /* MQC_BYTES, else null; not aligned beyond 4 bytes */
} MqcParam;

/* mqc_command - command of the message; 0 for a record without a message. */
MQ_RUNTIME uint32_t mqc_command(const PcfMessage* msg);

/* mqc_count - number of parameters; 0 for a record without a message. */
MQ_RUNTIME uint32_t mqc_count(const PcfMessage* msg);

/* mqc_param - the index-th parameter, counted from 0.
 * Result   1; 0 when index is not below mqc_count, out is all zero then */
MQ_RUNTIME int mqc_param(const PcfMessage* msg, uint32_t index, MqcParam* out);

/* mqc_find - the first parameter with this id. Looks at the parameters in order.
 * Result   1; 0 when there is none, out is all zero then */
MQ_RUNTIME int mqc_find(const PcfMessage* msg, uint32_t id, MqcParam* out);

/* mqc_user - user id in the message's header, as terminated text. Empty for a record without a raw message, and for one
 * whose last secure read was refused with -1001.
 * The write functions fill it in: before the first write it is empty. */
MQ_RUNTIME void mqc_user(const PcfMessage* msg, char user[13]);

/* mqc_application - application name in the message's header, as mqc_user. */
MQ_RUNTIME void mqc_application(const PcfMessage* msg, char application[49]);

/* mqc_sender - who sent the message that was read last: secHeader.userId as terminated text. After a secure read it is
 * the user whose key signed; after a plain read it is what the sender claimed. Empty after a secure read that was
 * refused with -1001: the record still holds the envelope, but nobody has been shown to have sent it. */
MQ_RUNTIME void mqc_sender(const PcfMessage* msg, char user[13]);

/* mqc_message_error - why the last conversion, parse, begin or add of this record failed; empty when it succeeded.
 * The text belongs to the record and holds until the next call on it. */
MQ_RUNTIME const char* mqc_message_error(const PcfMessage* msg);

/* mqc_header_error - why the last AlienToNative, AlienToNativeExt or VerifyMessage that failed on this thread did;
 * empty when none has. The text holds until the next failure on the thread. */
MQ_RUNTIME const char* mqc_header_error(void);

/* ---- Security ----
 *
 * A signer is the security context of the signed writes: one user and the secret key of that user. A host that reads
 * signed messages keeps the public keys of the users it accepts in the ring, one for the whole process. A signed
 * message carries the time of its signing and a nonce. It is accepted when its user has a key in the ring that is
 * neither revoked nor past its end, the signature is right, its time is within the window around the receiver's, and it
 * has not been accepted before.
 * Signers and the content of key files lie in memory that is left out of core dumps, and out of swap as far as
 * RLIMIT_MEMLOCK allows. What the caller hands over or gets is for the caller to protect. */

#define MQC_KEY_BYTES 32u /* a secret key (Ed25519 seed), and a public key */
#define MQC_KEY_TEXT 65u  /* a key as hexadecimal text with its terminator */
#define MQC_KEY_LINE 128u /* a line of a key file with its terminator */
#define MQC_USER_MAX 12u  /* characters of a user id; printable ASCII without blanks and '#' */
#define MQC_WINDOW_MAX 86400u
#define MQC_NO_END INT64_MAX /* the end of a key that has none */

typedef struct MqcSigner MqcSigner;

/* mqc_generate_key - a fresh pair of keys.
 * Result   1; 0 when the system has no randomness to give */
MQ_RUNTIME int mqc_generate_key(uint8_t secret_key[MQC_KEY_BYTES], uint8_t public_key[MQC_KEY_BYTES]);

/* mqc_key_text - a key as 64 lower-case hexadecimal digits. Wipe the text of a secret key after use (mqc_wipe). */
MQ_RUNTIME void mqc_key_text(const uint8_t key[MQC_KEY_BYTES], char text[MQC_KEY_TEXT]);

/* mqc_key_from_text - a key from exactly 64 hexadecimal digits of either case.
 * Result   1; 0 for any other text, key is all zero then */
MQ_RUNTIME int mqc_key_from_text(const char* text, uint8_t key[MQC_KEY_BYTES]);

/* A key with what a line of a key file says of it. */
enum { MQC_KEY_UNMARKED = 0, MQC_KEY_PUBLIC = 1, MQC_KEY_SECRET = 2 };

typedef struct MqcKey {
  char user[MQC_USER_MAX + 1];
  uint8_t kind;    /* MQC_KEY_...; unmarked: a public key in a ring, a secret one in a secret key file */
  uint8_t revoked; /* 1: nothing that this key has signed is accepted, whatever other lines say */
  uint8_t key[MQC_KEY_BYTES];
  int64_t until; /* the last millisecond of the key; MQC_NO_END */
} MqcKey;

/* mqc_key_read - a key from one line of a key file: a user, blanks, 64 hexadecimal digits, then any of the words
 * public or secret, until=YYYY-MM-DD (the key's last day, UTC) and revoked. What follows a '#' is skipped.
 * Result   1, with an empty user for a line without a key; 0 for a malformed line, key is all zero then
 * Wipe what held a secret key after use, the line too (mqc_wipe). */
MQ_RUNTIME int mqc_key_read(const char* line, MqcKey* key);

/* mqc_key_write - a key as such a line, without a newline. Of its end the day is written.
 *   key  in  the user at least must be a valid one */
MQ_RUNTIME void mqc_key_write(const MqcKey* key, char line[MQC_KEY_LINE]);

/* mqc_is_public_key - 1 when these bytes can be a public key; 0 otherwise. Of all secret keys about one in 16 can. */
MQ_RUNTIME int mqc_is_public_key(const uint8_t key[MQC_KEY_BYTES]);

/* mqc_wipe - overwrite size bytes with zero in a way that the compiler does not remove. */
MQ_RUNTIME void mqc_wipe(void* place, size_t size);

/* mqc_signer_new - a security context from key bytes. The key is copied; the caller wipes its own.
 *   user  in  at most MQC_USER_MAX characters. It must equal the user of every node that signs with it
 * Result   the signer, for mqc_signer_free; null with an error text */
MQ_RUNTIME MqcSigner* mqc_signer_new(const char* user, const uint8_t secret_key[MQC_KEY_BYTES], char* error,
                                     size_t size);

/* mqc_signer_load - a security context from a secret key file.
 *   path  in  a file of lines as mqc_key_read takes them
 *   user  in  whose key to take; null for the only key in the file
 * Refused, with the reason: a file that its group or others may access, that belongs neither to the user of this
 * process nor to root, that is not a regular file or larger than 65536 bytes, a malformed line (named as file:line), no
 * key for the user, more than one, one that is marked as public or revoked.
 * A key that has an end signs nothing after it: mqc_sign_error says so.
 * Result   the signer, for mqc_signer_free; null with an error text */
MQ_RUNTIME MqcSigner* mqc_signer_load(const char* path, const char* user, char* error, size_t size);

/* mqc_signer_user - user of a signer. The text belongs to the signer. */
MQ_RUNTIME const char* mqc_signer_user(const MqcSigner* signer);

/* mqc_signer_public_key - the public key that belongs to a signer's secret key. */
MQ_RUNTIME void mqc_signer_public_key(const MqcSigner* signer, uint8_t public_key[MQC_KEY_BYTES]);

/* mqc_signer_until - the last millisecond of a signer's key; MQC_NO_END. */
MQ_RUNTIME int64_t mqc_signer_until(const MqcSigner* signer);

/* mqc_signer_free - wipe and release a signer. signer may be null. No write may be using it. */
MQ_RUNTIME void mqc_signer_free(MqcSigner* signer);

/* mqc_secret_file_write - create a secret key file with one key, marked as secret, access for its owner alone.
 * Result   1; 0 with an error text, also when something with this name exists: nothing is ever overwritten */
MQ_RUNTIME int mqc_secret_file_write(const char* path, const char* user, const uint8_t secret_key[MQC_KEY_BYTES],
                                     char* error, size_t size);

/* mqc_secret_file_write_until - as mqc_secret_file_write, for a key that ends with the day of until. */
MQ_RUNTIME int mqc_secret_file_write_until(const char* path, const char* user, const uint8_t secret_key[MQC_KEY_BYTES],
                                           int64_t until, char* error, size_t size);

/* mqc_ring_add - accept messages signed by this user's key. A key that the user had before is replaced.
 * Result   1; 0 with an error text: a user id or a public key that cannot be one, a revoked key, no memory */
MQ_RUNTIME int mqc_ring_add(const char* user, const uint8_t public_key[MQC_KEY_BYTES], char* error, size_t size);

/* mqc_ring_load - add every line of a ring file, as mqc_key_read takes them. All or nothing: after a failure the ring
 * is as before. A key whose end has passed is refused when a message comes. A key that a line revokes is not accepted
 * for that user until mqc_ring_clear, whatever files are loaded before and after.
 * Result   1; 0 with an error text: a file that others than its owner may write to, that belongs neither to the user of
 *          this process nor to root, that is not a regular file or larger than 16777216 bytes; a malformed line, one
 *          with a secret key or without a valid public key, a second key of a user (named as file:line); no memory */
MQ_RUNTIME int mqc_ring_load(const char* path, char* error, size_t size);

/* mqc_ring_remove - accept nothing more from this user. Result 1; 0 when the ring has no key of the user. Revoked keys
 * stay revoked. */
MQ_RUNTIME int mqc_ring_remove(const char* user);

/* mqc_ring_clear - accept nothing more from anybody, and forget which keys were revoked. What was accepted before is
 * still remembered. */
MQ_RUNTIME void mqc_ring_clear(void);

/* mqc_ring_count - number of users who have a key in the ring, past its end or not. */
MQ_RUNTIME uint32_t mqc_ring_count(void);

/* mqc_set_window - how far the time of a signed message may lie from the receiver's, before and after it.
 *   seconds  in  1 to MQC_WINDOW_MAX; 300 at first
 * Result   1; 0 for a value outside, nothing changes then
 * A wider window never revives a message that was forgotten. */
MQ_RUNTIME int mqc_set_window(uint32_t seconds);

/* mqc_set_replay_limit - how many accepted messages are remembered at once, those of all users together.
 *   messages  in  1024 to 16777216; 262144 at first. Memory is taken as it is needed, about 80 bytes a message
 * When the memory is full, a user that holds the most forgets its oldest message for each one that comes in. A user
 * forgets for others only while it holds more than half of an equal share: the limit divided by the number of users
 * that hold messages. When the sender holds the most itself and its oldest message is no older than the present, or
 * than the new message, the new one is refused. A message is also forgotten an hour after it has left the window, two
 * for each message that is accepted from its user.
 * From then on every message of that user that is no newer than the forgotten one is refused: one process accepts a
 * message at most once. One message makes at most three others be forgotten, so it moves this limit by no more than
 * them, and never beyond the time of a message that was accepted from the same user.
 * Result   1; 0 for a value outside, nothing changes then. A smaller limit makes the users forget before the call
 *          returns. */
MQ_RUNTIME int mqc_set_replay_limit(uint32_t messages);

/* mqc_refuse_before - refuse every message signed at this time or before, until the process ends.
 * What was accepted is remembered by the process, not across a restart. A host that must not accept once more what its
 * predecessor accepted calls this when it starts, with the present time plus what the clocks of its senders may be
 * ahead. A lower value than before changes nothing; mqc_reset_replay can lower it. */
MQ_RUNTIME void mqc_refuse_before(int64_t time);

/* mqc_reset_replay - forget every accepted message, and every time up to which messages are refused.
 *   refuse_before  in  messages signed at this time or before are refused, as by mqc_refuse_before; 0 for none
 * For a process whose clock, and those of its senders, were ahead and have been set right: a user that filled the
 * memory meanwhile is refused until the right time reaches the wrong one, and this call ends that. Afterwards the
 * process knows as little as a new one: a message that it accepted and that was signed after refuse_before is accepted
 * once more when somebody sends it again within the window. With the present time these are only messages of clocks
 * that were ahead; with 0 also those of the last window. Forgetting and the new limit are one step, which no message
 * can come between. */
MQ_RUNTIME void mqc_reset_replay(int64_t refuse_before);

/* mqc_set_clock - take the time for signing and authenticating from this function; null for the system's clock.
 * The function returns milliseconds since 1970-01-01 UTC and is called on the thread that signs or authenticates. */
typedef int64_t (*MqcClock)(void);
MQ_RUNTIME void mqc_set_clock(MqcClock clock);

/* mqc_sign_error - why the last mqc_sign that failed on this thread did; empty when none has. After a write that
 * ended with node error -1000. */
MQ_RUNTIME const char* mqc_sign_error(void);

/* mqc_authenticate_error - as mqc_sign_error, for mqc_authenticate and node error -1001. */
MQ_RUNTIME const char* mqc_authenticate_error(void);

/* mqc_nonce - the nonce of the signed message that was last accepted on this thread: 16 random bytes, which name it
 * wherever it is sent. All zero when none was accepted. */
MQ_RUNTIME void mqc_nonce(uint8_t nonce[16]);

/* ---- Log ---- */

/* mqc_log_to - send the log's lines to this file, appended; null for standard error.
 *   path  in  copied; at most 1023 bytes. The file is created when the first line is written and opened for each line
 * Without this call the file that the environment variable MQCOMPANION_LOG names when the companion is loaded is used,
 * and standard error when it names none. A file that cannot be opened: the line goes to standard error.
 * Result   1; 0 when path is too long, nothing changes then. Not while another thread writes to the log. */
MQ_RUNTIME int mqc_log_to(const char* path);

MQ_END_C

#endif
