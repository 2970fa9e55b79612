// sender.hh - a sender of any byte order and character set, written from the description of the format alone: nothing
// of the library or its companion is in it.
#pragma once

#include <iconv.h>
#include <sodium.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace sender {

using Bytes = std::string;

inline void Check(bool good, const char* what) {
  if (good) return;
  perror(what);
  exit(1);
}

struct Form {
  bool big, ebcdic;
};

inline std::string Convert(std::string text, const char* from, const char* to) {
  std::string out(text.size() * 2, 0);
  char *in = text.data(), *at = out.data();
  size_t left = text.size(), room = out.size();
  const iconv_t converter = iconv_open(to, from);
  Check(iconv(converter, &in, &left, &at, &room) == 0, from);
  iconv_close(converter);
  out.resize(out.size() - room);
  return out;
}

class Encoder {
 public:
  explicit Encoder(Form form) : form_(form) {}
  Encoder& Word(uint32_t value) { return Number(value, 4); }
  Encoder& Number(uint64_t value, int size) {
    for (int i = 0; i < size; ++i) bytes += static_cast<char>(value >> 8 * (form_.big ? size - 1 - i : i));
    return *this;
  }
  Encoder& Raw(const Bytes& raw) {
    bytes += raw;
    return *this;
  }
  Encoder& Text(const std::string& latin, size_t field) {
    bytes += form_.ebcdic ? Convert(latin, "ISO-8859-1", "IBM1047") : latin;
    return Raw(Bytes(field - latin.size(), 0));
  }
  Encoder& Header(size_t body, const std::string& user, const std::string& application = "foreign sender") {
    Word(136).Word(1).Word(form_.big).Word(!form_.ebcdic).Raw(Bytes(48, 0)).Word(static_cast<uint32_t>(body)).Word(0);
    return Text(user, 12).Text(application, 48).Word(0);
  }
  Bytes bytes;

 private:
  Form form_;
};

inline Bytes Plain(Form form, const Bytes& body, const std::string& user = "moritz") {
  return Encoder(form).Header(body.size(), user).Raw(body).bytes;
}

inline Bytes Body(Form form, const std::string& text) {
  Encoder body(form);
  body.Word(77).Word(5);
  body.Word(1).Word(3).Word(static_cast<uint32_t>(text.size())).Text(text, (text.size() + 4) / 4 * 4);
  body.Word(2).Word(1).Word(4).Word(static_cast<uint32_t>(-5));
  body.Word(3).Word(2).Word(8).Number(static_cast<uint64_t>(INT64_MIN) + 1, 8);
  body.Word(4).Word(4).Word(3).Raw(Bytes("\x00\xfe\xff\x00", 4));
  return body.Word(1).Word(3).Word(0).Word(0).bytes;
}

// A signed message but for the signature, which is a part of the trailer.
inline Bytes Enveloped(Form form, const Bytes& plain, const std::string& user, const Bytes& trailer) {
  const auto length = static_cast<uint32_t>(plain.size() + trailer.size());
  return Encoder(form).Word(32).Word(1).Word(form.big).Word(!form.ebcdic).Word(length).Text(user, 12).bytes + plain +
         trailer;
}

// A message signed with the key of this seed, of 32 bytes; a nonce of up to 16 bytes is filled up with zeros.
inline Bytes Signed(Form form, const Bytes& plain, const std::string& user, const uint8_t* seed, uint64_t milliseconds,
                    Bytes nonce) {
  nonce.resize(16);
  const Bytes head = Encoder({true, false}).Raw("MQSIGN01").Number(milliseconds, 8).Raw(nonce).bytes;
  const auto length = static_cast<uint32_t>(plain.size() + 96);
  const Bytes covered = Encoder({true, false}).Raw(head).Word(1).Word(length).Text(user, 12).Raw(plain).bytes;
  uint8_t open[32], secret[64], signature[64];
  crypto_sign_seed_keypair(open, secret, seed);
  crypto_sign_state state;
  crypto_sign_init(&state);
  crypto_sign_update(&state, reinterpret_cast<const uint8_t*>(covered.data()), covered.size());
  crypto_sign_final_create(&state, signature, nullptr, secret);
  return Enveloped(form, plain, user, head + Bytes(reinterpret_cast<char*>(signature), sizeof signature));
}

}  // namespace sender
