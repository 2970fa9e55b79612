// record.cc - message records: their raw areas, building messages, reading parameters, the dump.
// Not here: conversion and parsing (header.cc, body.cc).
// Invariant: raw.library0 equals raw.data exactly when the companion owns the area. While content is ready, the raw
// form is a complete message and every entry is inside it.

#include "companion/memory.hh"
#include "companion/message.hh"
#include "runtime/runtime.h"

#include <algorithm>

namespace mqc {
namespace {

constexpr uint32_t kFirstCapacity = 512;
constexpr size_t kDumpLine = 32;    // bytes of the message per line of the dump
constexpr size_t kDumpBytes = 192;  // the header and the start of the body

// Enlarges the raw area for a message of need bytes; at least doubles it, to limit the number of copies.
[[gnu::noinline]] bool GrowMessage(PcfMessage* msg, uint64_t need) {
  const ErrorText error = ErrorOf(ContentOf(msg));
  const auto wanted = static_cast<unsigned long long>(need);
  if (need > MQ_MAX_MESSAGE) return Fail(error, "%llu bytes would pass the bound of %u", wanted, MQ_MAX_MESSAGE);
  const uint64_t doubled = std::min<uint64_t>(uint64_t{msg->raw.capacity} * 2, MQ_MAX_MESSAGE);
  if (GrowRaw(msg, static_cast<uint32_t>(std::max(need, doubled)))) return true;
  return Fail(error, "no memory for a message of %llu bytes", wanted);
}

bool CheckForAdding(Content& content) {
  if (content.ready != kReady) return Fail(ErrorOf(content), "the record holds no message to add to");
  if (content.count == MQC_MAX_PARAMS) {
    return Fail(ErrorOf(content), "a message has at most %u parameters", MQC_MAX_PARAMS);
  }
  content.error[0] = '\0';
  return true;
}

// Appends the parameter's head, value and padding, and adds it to the index. Inlined for the sake of integers, whose
// length is a constant.
[[gnu::always_inline]] inline bool AddParam(PcfMessage* msg, uint32_t id, MqcType type, const void* value,
                                            uint64_t length) {
  Content& content = ContentOf(msg);
  PcfRawData& raw = msg->raw;
  if (!CheckForAdding(content)) return false;
  const uint64_t stored = (length + (type == MQC_TEXT ? 1 : 0) + 3) & ~uint64_t{3};
  const uint64_t end = raw.length + kParamHead + stored;
  if (end > raw.capacity && !GrowMessage(msg, end)) return false;
  uint8_t* head = raw.data + raw.length;
  const auto size = static_cast<uint32_t>(length);
  Store(head, id);
  Store(head + 4, type);
  Store(head + 8, size);
  if (stored != length) Store(head + kParamHead + stored - 4, 0);
  if (length != 0) memcpy(head + kParamHead, value, length);
  content.entries[content.count++] = {id, type, raw.length + kParamHead, size};
  raw.length = static_cast<uint32_t>(end);
  Store(raw.data + kAtBodyLength, raw.length - kHeader);
  Store(raw.data + kHeader + 4, content.count);
  return true;
}

void FillParam(const PcfMessage* msg, const Entry& entry, MqcParam* out) {
  const uint8_t* value = msg->raw.data + entry.offset;
  *out = {entry.id, entry.type, entry.length, 0, nullptr, nullptr};
  switch (entry.type) {
    case MQC_INT32: {
      int32_t number;
      memcpy(&number, value, sizeof(number));
      out->number = number;
      break;
    }
    case MQC_INT64:
      memcpy(&out->number, value, sizeof(out->number));
      break;
    case MQC_TEXT:
      out->text = reinterpret_cast<const char*>(value);
      break;
    default:
      out->bytes = value;
  }
}

// Whether the raw area still contains the parameter. An application that replaced the area gets no parameter instead of
// bytes beyond its end.
bool Holds(const PcfMessage* msg, const Entry& entry) {
  return msg->raw.data != nullptr && uint64_t{entry.offset} + entry.length <= msg->raw.length;
}

// Copies a text field of a header and null-terminates the copy.
void CopyField(const void* field, size_t size, char* out) {
  const size_t length = strnlen(static_cast<const char*>(field), size);
  memcpy(out, field, length);
  out[length] = '\0';
}

// Also false for a signed message that was refused: its header is not trusted and has not been converted.
bool HasHeader(const PcfMessage* msg) {
  return ContentOf(msg).ready != kRefused && msg->raw.data != nullptr && msg->raw.capacity >= kHeader &&
         msg->raw.length >= kHeader;
}

void DumpBytes(const uint8_t* data, size_t from, size_t to) {
  static const char digits[] = "0123456789abcdef";
  char line[24 + kDumpLine * 3];
  char* at = line + snprintf(line, sizeof(line), "1902W dump %03zu:", from);
  for (size_t i = from; i < to; ++i) {
    if (i % 4 == 0) *at++ = ' ';
    *at++ = digits[data[i] >> 4];
    *at++ = digits[data[i] & 15];
  }
  *at = '\0';
  LOGMSG(line, 1);
}

}  // namespace

bool GrowRaw(PcfMessage* msg, uint32_t size) {
  PcfRawData& raw = msg->raw;
  if (raw.data != nullptr && raw.capacity >= size) return true;
  if (size > MQ_MAX_MESSAGE) return false;
  auto* area = static_cast<uint8_t*>(Allocate<Kind::kArea>(size, tags[kTagMessage]));
  if (area == nullptr) return false;
  if (raw.data != nullptr) {
    // length does not count a browsed header.
    memcpy(area, raw.data, std::min(raw.capacity, std::max(raw.length, kHeader)));
    if (raw.library0 == raw.data) Release<Kind::kArea>(raw.data);
  }
  raw.library0 = area;
  raw.data = area;
  raw.aux = nullptr;
  raw.capacity = size;
  return true;
}

}  // namespace mqc

using namespace mqc;

int SizePcfMessage(PcfMessage* msg, uint32_t size) { return GrowRaw(msg, size); }

PcfMessage* mqc_message_new(uint32_t capacity) {
  auto* msg = static_cast<PcfMessage*>(Allocate<Kind::kRecord>(sizeof(PcfMessage), tags[kTagRecord]));
  if (msg == nullptr) return nullptr;
  mqc_message_init(msg);
  if (GrowRaw(msg, std::max(capacity, kHeader))) return msg;
  Release<Kind::kRecord>(msg);
  return nullptr;
}

void mqc_message_free(PcfMessage* msg) {
  if (msg == nullptr) return;
  mqc_message_release(msg);
  Release<Kind::kRecord>(msg);
}

void mqc_message_init(PcfMessage* msg) {
  msg->library0 = 0;
  msg->secHeader = {};
  msg->raw = {};
  DropContent(ContentOf(msg));
}

void mqc_message_release(PcfMessage* msg) {
  if (msg->raw.data != nullptr && msg->raw.library0 == msg->raw.data) Release<Kind::kArea>(msg->raw.data);
  mqc_message_init(msg);
}

int mqc_begin(PcfMessage* msg, uint32_t command) {
  Content& content = ContentOf(msg);
  DropContent(content);
  msg->library0 = 0;
  if (msg->raw.data == nullptr || msg->raw.capacity < kHeader + kBodyHead) {
    if (!GrowRaw(msg, kFirstCapacity)) return Fail(ErrorOf(content), "no memory for a message");
  }
  uint8_t* h = msg->raw.data;
  memset(h, 0, kHeader);
  Store(h + kAtLength, kHeader);
  Store(h + kAtEncoding, kEncoding);
  Store(h + kAtBigEndian, kHostIsBig);
  Store(h + kAtAscii, kHostIsAscii);
  Store(h + kAtBodyLength, kBodyHead);
  Store(h + kHeader, command);
  Store(h + kHeader + 4, 0);
  msg->raw.length = kHeader + kBodyHead;
  content.command = command;
  content.count = 0;
  content.ready = kReady;
  return 1;
}

int mqc_add_int32(PcfMessage* msg, uint32_t id, int32_t value) {
  return AddParam(msg, id, MQC_INT32, &value, sizeof(value));
}

int mqc_add_int64(PcfMessage* msg, uint32_t id, int64_t value) {
  return AddParam(msg, id, MQC_INT64, &value, sizeof(value));
}

int mqc_add_text(PcfMessage* msg, uint32_t id, const char* text) {
  return AddParam(msg, id, MQC_TEXT, text, strlen(text));
}

int mqc_add_bytes(PcfMessage* msg, uint32_t id, const void* bytes, uint32_t length) {
  return AddParam(msg, id, MQC_BYTES, bytes, length);
}

uint32_t mqc_command(const PcfMessage* msg) {
  const Content& content = ContentOf(msg);
  return content.ready == kReady ? content.command : 0;
}

uint32_t mqc_count(const PcfMessage* msg) {
  const Content& content = ContentOf(msg);
  return content.ready == kReady ? content.count : 0;
}

int mqc_param(const PcfMessage* msg, uint32_t index, MqcParam* out) {
  const Content& content = ContentOf(msg);
  if (index < mqc_count(msg) && Holds(msg, content.entries[index])) {
    FillParam(msg, content.entries[index], out);
    return 1;
  }
  *out = {};
  return 0;
}

int mqc_find(const PcfMessage* msg, uint32_t id, MqcParam* out) {
  const Content& content = ContentOf(msg);
  const uint32_t count = mqc_count(msg);
  uint32_t index = 0;
  while (index < count && content.entries[index].id != id) ++index;
  return mqc_param(msg, index, out);
}

void mqc_user(const PcfMessage* msg, char user[13]) {
  user[0] = '\0';
  if (HasHeader(msg)) CopyField(msg->raw.data + kAtUser, kUserField, user);
}

void mqc_application(const PcfMessage* msg, char application[49]) {
  application[0] = '\0';
  if (HasHeader(msg)) CopyField(msg->raw.data + kAtApplication, sizeof(MsgHeader::applName), application);
}

void mqc_sender(const PcfMessage* msg, char user[13]) {
  user[0] = '\0';
  if (ContentOf(msg).ready != kRefused) CopyField(msg->secHeader.userId, kUserField, user);
}

int mqc_sealed(const PcfMessage* msg) { return msg->library0 == kWasSealed; }

const char* mqc_message_error(const PcfMessage* msg) { return ContentOf(msg).error; }

// Logs a few lines, however long the message is: the error, the header and the first bytes of the body. Nothing that was
// encrypted is logged.
int DumpPcfMessage(PcfMessage* msg) {
  const PcfRawData& raw = msg->raw;
  const char* why = mqc_sealed(msg)                   ? "sealed"
                    : ContentOf(msg).error[0] != '\0' ? ContentOf(msg).error
                                                      : mqc_header_error();
  char user[13];
  mqc_sender(msg, user);
  char line[kErrorText + 128];
  snprintf(line, sizeof(line), "1901W message of %u bytes, area %u, sender \"%s\": %s", raw.length, raw.capacity, user,
           why);
  LOGMSG(line, 1);
  if (raw.data == nullptr || mqc_sealed(msg)) return 1;
  const size_t shown = std::min<size_t>({std::max(raw.length, kHeader), raw.capacity, kDumpBytes});
  for (size_t at = 0; at < shown; at += kDumpLine) DumpBytes(raw.data, at, std::min(shown, at + kDumpLine));
  return 1;
}
