#include "demo/plan.hh"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <time.h>

#include <cstdio>
#include <cstring>

namespace demo {
namespace {

constexpr uint32_t kPoolSize = 5u << 20;
constexpr uint32_t kLargest = 4u << 20;
constexpr uint32_t kSmall = 1024;
constexpr uint32_t kMedium = 12 * 1024;  // with its header and signature still one datagram

uint64_t Mix(uint64_t x) {
  x += 0x9e3779b97f4a7c15;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9;
  x = (x ^ (x >> 27)) * 0x94d049bb133111eb;
  return x ^ (x >> 31);
}

uint64_t Draw(uint64_t seed, uint32_t client, uint32_t sequence) {
  return Mix(seed ^ (uint64_t{client} << 32 | sequence));
}

std::string DifferentNumber(const PcfMessage* msg, uint32_t index, Param id, uint32_t type, int64_t expected) {
  MqcParam param;
  mqc_param(msg, index, &param);
  if (param.id == id && param.type == type && param.number == expected) return {};
  return fmt::format("parameter {}: {} instead of {}", +id, param.number, expected);
}

std::string DifferentText(const PcfMessage* msg, uint32_t index, const char* expected) {
  MqcParam param;
  mqc_param(msg, index, &param);
  if (param.id == kText && param.type == MQC_TEXT && strcmp(param.text, expected) == 0) return {};
  return fmt::format("parameter {}: '{}' instead of '{}'", +kText, param.text == nullptr ? "" : param.text, expected);
}

std::string DifferentBytes(const PcfMessage* msg, uint32_t index, std::span<const uint8_t> expected) {
  MqcParam param;
  mqc_param(msg, index, &param);
  if (param.id != kBytes || param.type != MQC_BYTES || param.length != expected.size()) {
    return fmt::format("parameter {}: {} bytes instead of {}", +kBytes, param.length, expected.size());
  }
  for (size_t i = 0; i < expected.size(); i += kSmall) {
    const size_t size = std::min<size_t>(kSmall, expected.size() - i);
    if (memcmp(param.bytes + i, expected.data() + i, size) != 0) {
      return fmt::format("parameter {}: other bytes in the {} from {} on", +kBytes, size, i);
    }
  }
  return {};
}

}  // namespace

int KindOf(uint32_t client) {
  constexpr int kTurns[20] = {0, 1, 2, 3, 4, 5, 0, 0, 1, 0, 4, 0, 5, 0, 1, 0, 0, 1, 0, 0};
  const int kind = kTurns[client % 20];
  return kKindTraits[kind].isBulk && client / 20 % 2 != 0 ? 0 : kind;
}

std::string MakeKeys(Keys* keys) {
  char login[256];
  int length = sizeof login;
  if (!GetUserName(login, &length)) return "this user has no name to sign with";
  snprintf(keys->user, sizeof keys->user, "%.*s", static_cast<int>(MQC_USER_MAX), login);
  uint8_t unused[MQC_KEY_BYTES];
  if (!mqc_generate_key(keys->secretKey, keys->publicKey) || !mqc_generate_key(keys->stranger, unused)) {
    return "no randomness to make keys from";
  }
  char error[256];
  if (!mqc_ring_add(keys->user, keys->publicKey, error, sizeof error)) return error;
  return {};
}

SignerPtr MakeSigner(const Keys& keys, const uint8_t* secretKey) {
  return SignerPtr(mqc_signer_new(keys.user, secretKey, nullptr, 0));
}

Author::Author(uint64_t seed) : seed_(seed), pool_(kPoolSize) {
  for (size_t i = 0; i < pool_.size(); i += sizeof(uint64_t)) {
    const uint64_t word = Mix(seed + i);
    memcpy(pool_.data() + i, &word, sizeof word);
  }
}

Content Author::Write(uint32_t client, uint32_t sequence, uint32_t size) const {
  const uint64_t draw = Draw(seed_, client, sequence);
  Content content{};
  content.client = static_cast<int32_t>(client);
  content.sequence = static_cast<int32_t>(sequence);
  content.number = static_cast<int64_t>(draw);
  snprintf(content.text, sizeof content.text, "client %u, message %u, %016llx", client, sequence,
           static_cast<unsigned long long>(Mix(draw)));
  content.bytes = {pool_.data() + draw % (pool_.size() - size + 1), size};
  return content;
}

uint32_t Author::SizeOf(int kind, uint32_t client, uint32_t sequence) const {
  const uint64_t draw = Mix(Draw(seed_, client, sequence));
  if (kKindTraits[kind].isBulk) {
    // Every eighth is as large as they come; the others lie between 64 KiB and 2 MiB.
    if (sequence % 8 == 3) return kLargest;
    const uint32_t base = 64u * 1024u << (draw % 5);
    return base + static_cast<uint32_t>((draw >> 8) % base);
  }
  return static_cast<uint32_t>((draw >> 8) % (draw % 8 == 0 ? kMedium : kSmall));
}

bool BuildQuestion(PcfMessage* msg, const Content& content) {
  return mqc_begin(msg, kQuestion) && mqc_add_int32(msg, kClient, content.client) &&
         mqc_add_int32(msg, kSequence, content.sequence) && mqc_add_int64(msg, kNumber, content.number) &&
         mqc_add_text(msg, kText, content.text) &&
         mqc_add_bytes(msg, kBytes, content.bytes.data(), static_cast<uint32_t>(content.bytes.size()));
}

std::string CompareAnswer(const PcfMessage* msg, const Content& content) {
  if (mqc_command(msg) != kAnswer) return fmt::format("command {} instead of {}", mqc_command(msg), +kAnswer);
  if (mqc_count(msg) != kParams) return fmt::format("{} parameters instead of {}", mqc_count(msg), kParams);
  for (std::string different : {DifferentNumber(msg, 0, kClient, MQC_INT32, content.client),
                                DifferentNumber(msg, 1, kSequence, MQC_INT32, content.sequence),
                                DifferentNumber(msg, 2, kNumber, MQC_INT64, content.number),
                                DifferentText(msg, 3, content.text), DifferentBytes(msg, 4, content.bytes)}) {
    if (!different.empty()) return different;
  }
  return {};
}

uint32_t RawLength(const PcfMessage* msg) {
  MsgHeader header;
  memcpy(&header, msg->raw.data, sizeof header);
  return header.hdrLength + header.bodyLength;
}

SockAddrRec LocalAddress(int port, bool isDatagram) {
  SockAddrRec addr{};
  snprintf(addr.host, sizeof addr.host, "127.0.0.1");
  snprintf(addr.ip, sizeof addr.ip, "127.0.0.1");
  snprintf(addr.service, sizeof addr.service, "%d", port);
  snprintf(addr.protocol, sizeof addr.protocol, "%s", isDatagram ? "udp" : "tcp");
  return addr;
}

int PortOf(int fd) {
  sockaddr_in bound{};
  socklen_t size = sizeof bound;
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &size) != 0) return 0;
  return ntohs(bound.sin_port);
}

double Now() {
  timespec time;
  clock_gettime(CLOCK_MONOTONIC, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

}  // namespace demo
