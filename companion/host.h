/* host.h - the functions of libmqcompanion.so.1, the companion of this project, that an application calls.
 *
 * libmqnode calls the companion through runtime/runtime.h and runtime/message.h. With this header an application builds
 * and reads messages, signs and authenticates them, gets memory statistics, makes allocations fail and sets the log.
 *
 * Conventions of all functions here, unless documented otherwise:
 *   Results      1 on success, 0 on failure.
 *   Pointers     must not be null.
 *   Units        sizes are in bytes, times in milliseconds since 1970-01-01 UTC. Texts are null-terminated, in ASCII or
 *                a superset of it.
 *   Error texts  a function with the arguments char* error, size_t size stores one line without a newline in error if
 *                it fails, cut to size, and an empty text if it succeeds. error may be null if size is 0.
 *   Threads      a record must be used by one thread at a time. The state of the process (memory statistics, ring,
 *                window, clock, log) may be used by any thread.
 *   Blocking     no function waits. Only functions with a path use the file system. */
#ifndef MQNODE_COMPANION_HOST_H
#define MQNODE_COMPANION_HOST_H

#include <stddef.h>
#include <stdint.h>

#include "runtime/message.h"

MQ_BEGIN_C

/* ---- Memory statistics ----
 *
 * Each allocation of the companion is counted under a tag: blocks from fNewMemory under the caller's tag, data areas of
 * IoBuffers under "buffer", raw areas of PcfMessages under "message", records of mqc_message_new under "PcfMessage",
 * signers and the key of mqc_set_opener under "signer", the ring of users under "ring", the record of accepted messages
 * under "replay", and key files under "file" while they are read. */

/* MqcMemory - the memory statistics of a tag. */
typedef struct MqcMemory {
  uint64_t live_blocks;  /* allocated and not yet released */
  uint64_t total_blocks; /* allocated since the process started */
  uint64_t peak_blocks;  /* maximum of live_blocks */
  uint64_t live_bytes;   /* requested size of the live blocks */
} MqcMemory;

/* mqc_memory - get the memory statistics of one tag, or of all.
 *   tag   in   name of the tag, compared as text; null for all. The peak of all is the sum of the peaks of the tags,
 *              which is an upper bound of the true peak
 *   out   out  the counters; all 0 if the tag is not in use
 * Result   1; 0 if the tag is not in use
 * While other threads allocate, each counter is correct by itself, but the counters may be from different times. */
MQ_RUNTIME int mqc_memory(const char* tag, MqcMemory* out);

/* mqc_memory_tag - get the name of a tag in use.
 *   index  in  counted from 0
 * Result   the name, valid until the process ends; null if index is not below the number of tags
 * Tags are never removed. At most 64 tags are distinguished: blocks with further tags are counted under "(other)",
 * blocks without a tag under "(none)". */
MQ_RUNTIME const char* mqc_memory_tag(uint32_t index);

/* mqc_allocations - get the number of allocations attempted since the process started, including failed ones. */
MQ_RUNTIME uint64_t mqc_allocations(void);

/* mqc_fail_allocation - make a future allocation of the companion fail, to test the error handling of an application.
 *   nth      in  1 the next allocation of any thread, 2 the one after it, and so on; 0 none
 *   onwards  in  0: only that allocation fails; nonzero: it and all later ones fail until the next call with 0
 * The count includes fNewMemory, CreateBuffer, SizeBuffer and SizePcfMessage if they enlarge an area, and all
 * allocations of the functions in this header. To test a whole scenario, repeat it with nth = 1, 2, 3 ... until it
 * makes fewer than nth allocations. */
MQ_RUNTIME void mqc_fail_allocation(uint64_t nth, int onwards);

/* ---- Messages: records ----
 *
 * A PcfMessage contains one message: its raw form, as on the wire, in raw, and the index of its parameters in
 * libraryData. A record can be used for any number of messages, written and read in any order. Once its raw area is as
 * large as the largest message, no call allocates. Do not copy a record: both copies would share its raw area. */

/* Maximum number of parameters of a message. Adding one more fails; a message is never truncated. */
#define MQC_MAX_PARAMS 3740u

/* mqc_message_new - allocate a record.
 *   capacity  in  initial size of the raw area, header included: at least 136 is allocated, at most MQ_MAX_MESSAGE. It
 *                 is enlarged when necessary
 * Result   the record, without a message, to be released with mqc_message_free; null if there is no memory */
MQ_RUNTIME PcfMessage* mqc_message_new(uint32_t capacity);

/* mqc_message_free - release a record from mqc_message_new and its raw area. msg may be null. */
MQ_RUNTIME void mqc_message_free(PcfMessage* msg);

/* mqc_message_init - initialise a record that the caller allocated, for example on the stack.
 * The record has no raw area yet, and nothing is allocated; before mnBrowse, call SizePcfMessage(msg, 136). The
 * previous contents of the record are neither read nor released. A record of zero bytes is initialised, too. */
MQ_RUNTIME void mqc_message_init(PcfMessage* msg);

/* mqc_message_release - release the raw area of a record from mqc_message_init, and initialise the record again. A raw
 * area that the application supplied (raw.data, raw.capacity) is not released, neither here nor when it is replaced by
 * a larger one. */
MQ_RUNTIME void mqc_message_release(PcfMessage* msg);

/* ---- Messages: writing ----
 *
 *   mqc_begin(msg, 7) && mqc_add_text(msg, 1, "hello") && mqc_add_int32(msg, 2, -5) && mnWrite(msg, node)
 *
 * After each successful call, raw is a complete message (136 bytes for the header, then the body), which any write
 * function accepts. A failed add does not change the message; mqc_message_error returns the reason. */

/* mqc_begin - start a new message in the record, discarding its previous message.
 *   command  in  the command of the message; its meaning is defined by the applications
 * Result   1; 0 if there is no memory for the raw area */
MQ_RUNTIME int mqc_begin(PcfMessage* msg, uint32_t command);

/* mqc_add_int32, mqc_add_int64, mqc_add_text, mqc_add_bytes - append a parameter to the message.
 *   id      in  identifies the parameter. Several parameters may have the same id; their order is preserved
 *   value   in  a number
 *   text    in  null-terminated; sent in the sender's character set and converted to the receiver's
 *   bytes   in  length bytes, which are not converted; may be null if length is 0
 * Result   1; 0 if the record has no message, if there is no memory, or if the message would exceed MQC_MAX_PARAMS
 *          parameters or MQ_MAX_MESSAGE bytes
 * text and bytes must not be in the record's own raw area, which may be moved. */
MQ_RUNTIME int mqc_add_int32(PcfMessage* msg, uint32_t id, int32_t value);
MQ_RUNTIME int mqc_add_int64(PcfMessage* msg, uint32_t id, int64_t value);
MQ_RUNTIME int mqc_add_text(PcfMessage* msg, uint32_t id, const char* text);
MQ_RUNTIME int mqc_add_bytes(PcfMessage* msg, uint32_t id, const void* bytes, uint32_t length);

/* ---- Messages: reading ----
 *
 * After a successful read, and while a message is built, its parameters are read in place. Pointers to text and bytes
 * point into the raw area: they are valid until the next call that writes to the record. After a failed read the record
 * has no parameters. */

typedef enum MqcType { MQC_INT32 = 1, MQC_INT64 = 2, MQC_TEXT = 3, MQC_BYTES = 4 } MqcType;

/* MqcParam - a parameter of a message. */
typedef struct MqcParam {
  uint32_t id;
  uint32_t type;        /* an MqcType */
  uint32_t length;      /* bytes of the value: 4, 8, length of the text without terminator, number of bytes */
  int64_t number;       /* MQC_INT32 and MQC_INT64, else 0 */
  const char* text;     /* MQC_TEXT, terminated, else null */
  const uint8_t* bytes; /* MQC_BYTES, else null; not aligned beyond 4 bytes */
} MqcParam;

/* mqc_command - get the command of the message; 0 if the record has no message. */
MQ_RUNTIME uint32_t mqc_command(const PcfMessage* msg);

/* mqc_count - get the number of parameters; 0 if the record has no message. */
MQ_RUNTIME uint32_t mqc_count(const PcfMessage* msg);

/* mqc_param - get a parameter by its index, counted from 0.
 *   out   out  the parameter; all zero after result 0
 * Result   1; 0 if index is not below mqc_count */
MQ_RUNTIME int mqc_param(const PcfMessage* msg, uint32_t index, MqcParam* out);

/* mqc_find - get the first parameter with this id. The search is linear.
 *   out   out  the parameter; all zero after result 0
 * Result   1; 0 if there is no such parameter */
MQ_RUNTIME int mqc_find(const PcfMessage* msg, uint32_t id, MqcParam* out);

/* mqc_user - get the user id from the header of the message, null-terminated. It is empty if the record has no raw
 * message, if its last signed read was refused with -1001, and before the first write, which fills it in. */
MQ_RUNTIME void mqc_user(const PcfMessage* msg, char user[13]);

/* mqc_application - get the name of the sending application from the header of the message; empty as for mqc_user. */
MQ_RUNTIME void mqc_application(const PcfMessage* msg, char application[49]);

/* mqc_sender - get the sender of the message that was read last: secHeader.userId, null-terminated. After a signed read
 * it is the user whose key signed the message; after a plain read it is the user that the sender claimed to be. It is
 * empty after a signed read that was refused with -1001: the envelope is still in the record, but was not
 * authenticated. */
MQ_RUNTIME void mqc_sender(const PcfMessage* msg, char user[13]);

/* mqc_sealed - check whether the message that was read last was sealed and has been opened.
 * Result   1 if it was; else 0, also after a read that was refused with -1001 and for a message that is being built */
MQ_RUNTIME int mqc_sealed(const PcfMessage* msg);

/* mqc_message_error - get the reason why the last conversion, parse, begin or add of this record failed; empty if it
 * succeeded. The text belongs to the record and is valid until the next call with the record. */
MQ_RUNTIME const char* mqc_message_error(const PcfMessage* msg);

/* mqc_header_error - get the reason for the last failure of AlienToNative, AlienToNativeExt or VerifyMessage on this
 * thread; empty if there was none. The text is valid until the next such failure on the thread. */
MQ_RUNTIME const char* mqc_header_error(void);

/* ---- Security ----
 *
 * A signer is the security context of signed writes: a user and the secret key of that user. An application that reads
 * signed messages stores the public keys of the accepted users in the ring, of which a process has one. A signed
 * message contains the time at which it was signed, and a nonce. It is accepted if its user has a key in the ring that
 * is neither revoked nor expired, the signature is valid, its time is within the window around the receiver's time, and
 * it has not been accepted before.
 *
 * Signers and the contents of key files are stored in memory that is excluded from core dumps, and from swap as far as
 * RLIMIT_MEMLOCK allows. The caller must protect its own copies of keys. */

#define MQC_KEY_BYTES 32u     /* a secret key (Ed25519 seed), and a public key */
#define MQC_KEY_TEXT 65u      /* a key as hexadecimal text with its terminator */
#define MQC_KEY_LINE 128u     /* a line of a key file with its terminator */
#define MQC_USER_MAX 12u      /* maximum length of a user id; printable ASCII without blanks and '#' */
#define MQC_WINDOW_MAX 86400u /* maximum of mqc_set_window, in seconds */
#define MQC_NO_END INT64_MAX  /* the end of a key that does not expire */

/* MqcSigner - a user and a secret key, from mqc_signer_new or mqc_signer_load. */
typedef struct MqcSigner MqcSigner;

/* mqc_generate_key - generate a key pair.
 * Result   1; 0 if the system cannot provide random numbers */
MQ_RUNTIME int mqc_generate_key(uint8_t secret_key[MQC_KEY_BYTES], uint8_t public_key[MQC_KEY_BYTES]);

/* mqc_key_text - convert a key to 64 lower-case hexadecimal digits. After use, wipe the text of a secret key
 * (mqc_wipe). */
MQ_RUNTIME void mqc_key_text(const uint8_t key[MQC_KEY_BYTES], char text[MQC_KEY_TEXT]);

/* mqc_key_from_text - convert exactly 64 hexadecimal digits of either case to a key.
 * Result   1; 0 for any other text, with key all zero */
MQ_RUNTIME int mqc_key_from_text(const char* text, uint8_t key[MQC_KEY_BYTES]);

/* Values of MqcKey.kind. */
enum { MQC_KEY_UNMARKED = 0, MQC_KEY_PUBLIC = 1, MQC_KEY_SECRET = 2 };

/* MqcKey - a line of a key file. */
typedef struct MqcKey {
  char user[MQC_USER_MAX + 1];
  uint8_t kind;    /* MQC_KEY_...; an unmarked key is public in a ring file and secret in a secret key file */
  uint8_t revoked; /* 1: messages signed by this key are refused, whatever other lines contain */
  uint8_t key[MQC_KEY_BYTES];
  int64_t until; /* the last millisecond at which the key is valid, or MQC_NO_END */
} MqcKey;

/* mqc_key_read - parse a line of a key file: a user, blanks, 64 hexadecimal digits, and optionally the words public or
 * secret, until=YYYY-MM-DD (the last day of the key, UTC) and revoked. A comment begins with '#'.
 * Result   1, with an empty user if the line contains no key; 0 if the line is malformed, with key all zero
 * After use, wipe the record and the line if they contain a secret key (mqc_wipe). */
MQ_RUNTIME int mqc_key_read(const char* line, MqcKey* key);

/* mqc_key_write - format a key as a line of a key file, without a newline. The end is written as a day.
 *   key  in  its user must be valid */
MQ_RUNTIME void mqc_key_write(const MqcKey* key, char line[MQC_KEY_LINE]);

/* mqc_is_public_key - check whether a key can be a public key.
 * Result   1 if it can, else 0. About one secret key in 16 also passes this check */
MQ_RUNTIME int mqc_is_public_key(const uint8_t key[MQC_KEY_BYTES]);

/* mqc_wipe - set size bytes to zero in a way that the compiler does not optimise away. */
MQ_RUNTIME void mqc_wipe(void* place, size_t size);

/* mqc_signer_new - create a signer from the bytes of a key. The key is copied; wipe the caller's copy after use.
 *   user  in  at most MQC_USER_MAX characters; must equal the user of each node that signs with this signer
 * Result   the signer, to be released with mqc_signer_free; null after a failure, with an error text */
MQ_RUNTIME MqcSigner* mqc_signer_new(const char* user, const uint8_t secret_key[MQC_KEY_BYTES], char* error,
                                     size_t size);

/* mqc_signer_load - create a signer from a secret key file.
 *   path  in  a file of lines in the format of mqc_key_read
 *   user  in  the user whose key to load; null for the only key in the file
 * It fails if the file is accessible by its group or others, belongs neither to the user of this process nor to root,
 * is not a regular file or is larger than 65536 bytes; if a line is malformed (the error text names file:line); or if
 * the file has no key of the user, more than one, or one that is marked as public or revoked. A key can be loaded after
 * its end, but cannot sign then: mqc_sign fails, and mqc_sign_error returns the reason.
 * Result   the signer, to be released with mqc_signer_free; null after a failure, with an error text */
MQ_RUNTIME MqcSigner* mqc_signer_load(const char* path, const char* user, char* error, size_t size);

/* mqc_signer_sealing - create a signer that also seals each message that it signs: only the key of a user can open it.
 * No other user can read header and body. Length, sender and recipient remain visible.
 *   signer  in  the signer whose key signs; copied, and not needed afterwards
 *   user    in  a user of the ring. Each message is sealed for the key that the ring has for the user at that time. If
 *               there is none, or it is revoked or expired, the message is not signed (mqc_sign_error)
 * A sealed message is 64 bytes longer than a signed one.
 * Result   the signer, to be released with mqc_signer_free; null with an error text if there is no such user, no key to
 *          seal for, or no memory */
MQ_RUNTIME MqcSigner* mqc_signer_sealing(const MqcSigner* signer, const char* user, char* error, size_t size);

/* mqc_signer_user - get the user of a signer. The text belongs to the signer. */
MQ_RUNTIME const char* mqc_signer_user(const MqcSigner* signer);

/* mqc_signer_public_key - get the public key of a signer. */
MQ_RUNTIME void mqc_signer_public_key(const MqcSigner* signer, uint8_t public_key[MQC_KEY_BYTES]);

/* mqc_signer_until - get the last millisecond at which the key of a signer is valid, or MQC_NO_END. */
MQ_RUNTIME int64_t mqc_signer_until(const MqcSigner* signer);

/* mqc_signer_free - wipe and release a signer. signer may be null. No write may be in progress with it. */
MQ_RUNTIME void mqc_signer_free(MqcSigner* signer);

/* mqc_secret_file_write - create a secret key file with one key, marked as secret. Only its owner can access the file.
 * Result   1; 0 after a failure, with an error text. An existing file is never overwritten: the function fails */
MQ_RUNTIME int mqc_secret_file_write(const char* path, const char* user, const uint8_t secret_key[MQC_KEY_BYTES],
                                     char* error, size_t size);

/* mqc_secret_file_write_until - as mqc_secret_file_write, with a key that expires at the end of the day of until. */
MQ_RUNTIME int mqc_secret_file_write_until(const char* path, const char* user, const uint8_t secret_key[MQC_KEY_BYTES],
                                           int64_t until, char* error, size_t size);

/* mqc_ring_add - accept messages that are signed with this key of this user. It replaces an earlier key of the user.
 * Result   1; 0 after a failure, with an error text: the user id or the public key is not valid, the key is revoked, or
 *          there is no memory */
MQ_RUNTIME int mqc_ring_add(const char* user, const uint8_t public_key[MQC_KEY_BYTES], char* error, size_t size);

/* mqc_ring_load - add all keys of a ring file, whose lines are in the format of mqc_key_read. After a failure the ring
 * is unchanged. An expired key can be loaded; messages signed with it are refused. A key that a line revokes is refused
 * for that user until mqc_ring_clear, whatever files are loaded before or after.
 * Result   1; 0 after a failure, with an error text
 * It fails if the file is writable by others than its owner, belongs neither to the user of this process nor to root,
 * is not a regular file or is larger than 16777216 bytes; if a line is malformed, contains a secret key or a key that
 * is not a valid public key, or has a second key of a user (the error text names file:line); or if there is no memory.
 * */
MQ_RUNTIME int mqc_ring_load(const char* path, char* error, size_t size);

/* mqc_ring_remove - remove the key of a user: further messages from the user are refused. Revoked keys stay revoked.
 * Result   1; 0 if the ring has no key of the user */
MQ_RUNTIME int mqc_ring_remove(const char* user);

/* mqc_ring_clear - remove all keys and forget all revocations. The record of accepted messages is kept. */
MQ_RUNTIME void mqc_ring_clear(void);

/* mqc_ring_count - get the number of users with a key in the ring, including expired keys. */
MQ_RUNTIME uint32_t mqc_ring_count(void);

/* mqc_set_window - set the maximum difference between the time of a signed message and the receiver's time, either way.
 *   seconds  in  1 to MQC_WINDOW_MAX; initially 300
 * Result   1; 0 if the value is out of range, and nothing changes
 * A message that was accepted and forgotten is refused even after the window was widened. */
MQ_RUNTIME int mqc_set_window(uint32_t seconds);

/* mqc_set_replay_limit - set the maximum number of accepted messages that are remembered, of all users together.
 *   messages  in  1024 to 16777216; initially 262144. Memory is allocated as needed, about 80 bytes for each message
 * Result   1; 0 if the value is out of range, and nothing changes. If the limit becomes smaller, messages are forgotten
 *          before the call returns
 *
 * When the limit is reached, each new message makes the user with the most remembered messages forget its oldest one. A
 * user forgets messages in favour of others only while it has more than half of an equal share, which is the limit
 * divided by the number of users with remembered messages. If the sender itself has the most, and its oldest message is
 * no older than the present or than the new message, the new message is refused. Messages are also forgotten an hour
 * after they left the window, at most two for each accepted message of the same user.
 *
 * When a message has been forgotten, all messages of its user that are no newer than it are refused, so that a process
 * accepts a message at most once. A message causes at most three others to be forgotten. It therefore moves this time
 * limit by no more than these, and never beyond the time of an accepted message of the same user. */
MQ_RUNTIME int mqc_set_replay_limit(uint32_t messages);

/* mqc_refuse_before - refuse all messages signed at this time or earlier, until the process ends.
 * Accepted messages are remembered by the process, and not across a restart. An application that must not accept
 * messages that an earlier process has accepted should call this function when it starts, with the present time plus
 * the maximum by which the clocks of its senders may be ahead. A value below an earlier one has no effect;
 * mqc_reset_replay can lower it. */
MQ_RUNTIME void mqc_refuse_before(int64_t time);

/* mqc_reset_replay - forget all accepted messages, and all times up to which messages are refused.
 *   refuse_before  in  messages signed at this time or earlier are refused, as by mqc_refuse_before; 0 for none
 * Use it after the clocks of the process and its senders were ahead and have been corrected: a user that reached the
 * limit meanwhile would be refused until the correct time reaches the wrong one. Afterwards the process accepts
 * messages again that it had accepted before, if they were signed after refuse_before and are sent again within the
 * window. If refuse_before is the present time, these are only messages from clocks that were ahead; if it is 0, also
 * those of the last window. Both changes are one atomic step with respect to incoming messages. */
MQ_RUNTIME void mqc_reset_replay(int64_t refuse_before);

/* mqc_set_clock - set the function that returns the time for signing and authenticating; null for the system's clock.
 * It returns milliseconds since 1970-01-01 UTC and is called on the thread that signs or authenticates. */
typedef int64_t (*MqcClock)(void);
MQ_RUNTIME void mqc_set_clock(MqcClock clock);

/* mqc_set_opener - set the signer whose key opens sealed messages in the whole process: those for the signer's user.
 *   signer  in  copied, and not needed afterwards; null: nothing is opened
 * The key that was set before is wiped before the call returns. A read in another thread that is using it continues
 * with a copy, and wipes the copy. After the last day of the key, nothing is opened.
 * Result   1; 0 if there is no memory, and nothing changes */
MQ_RUNTIME int mqc_set_opener(const MqcSigner* signer);

/* mqc_set_sealing - set which signed messages are accepted in the whole process.
 *   setting  in  MQC_SEAL_MAY: sealed and other messages, at first; MQC_SEAL_MUST: only messages that are sealed for
 *                the user of mqc_set_opener; MQC_SEAL_NEVER: only messages that are not sealed
 * Other messages are refused with node error -1001. Reads of plain messages are not affected.
 * Result   1; 0 for another value, and nothing changes */
typedef enum MqcSealing { MQC_SEAL_MAY = 0, MQC_SEAL_MUST = 1, MQC_SEAL_NEVER = 2 } MqcSealing;
MQ_RUNTIME int mqc_set_sealing(uint32_t setting);

/* mqc_open_captured - decrypt a copy of a sealed message, for a program that displays captured traffic.
 *   signer   in      the signer whose key opens it; the key may be expired
 *   message  in/out  a complete message as it was sent: envelope, header, body, seal, trailer. Header and body are
 *                    decrypted in place and remain in their sender's form; the other bytes do not change
 *   length   in      number of bytes
 * Only the seal is checked. Signature, time and replays are not checked, so success does not show who sent the message.
 * Result   1; 0 with an error text: the message is not sealed, or sealed for another user, and is unchanged; or it was
 *          changed or sealed for another key of the user, and header and body are all zero */
MQ_RUNTIME int mqc_open_captured(const MqcSigner* signer, uint8_t* message, uint32_t length, char* error, size_t size);

/* mqc_sign_error - get the reason for the last failure of mqc_sign on this thread, which a write reports as error
 * -1000; empty if there was none. */
MQ_RUNTIME const char* mqc_sign_error(void);

/* mqc_authenticate_error - get the reason for the last failure of mqc_authenticate on this thread, which a read reports
 * as error -1001; empty if there was none. */
MQ_RUNTIME const char* mqc_authenticate_error(void);

/* mqc_nonce - get the nonce of the signed message that was last accepted on this thread: 16 random bytes, which
 * identify the message wherever it is sent. All zero if none was accepted. */
MQ_RUNTIME void mqc_nonce(uint8_t nonce[16]);

/* ---- Log ---- */

/* mqc_log_to - append the log to a file; null for standard error.
 *   path  in  copied; at most 1023 bytes. The file is created with the first line, and opened for each line
 * Initially the log is written to the file that the environment variable MQCOMPANION_LOG named when the companion was
 * loaded, or to standard error if it is not set. If the file cannot be opened, the line is written to standard error.
 * Do not call this function while another thread writes to the log.
 * Result   1; 0 if path is too long, and nothing changes */
MQ_RUNTIME int mqc_log_to(const char* path);

MQ_END_C

#endif
