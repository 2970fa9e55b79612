// sender.hh - a sender with any byte order and character set. It is independent: it uses only the description of the
// format, and nothing of the library or its companion.
#pragma once

#include <iconv.h>
#include <sodium.h>

#include <algorithm>
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

// Replaces the word at this offset, in the sender's byte order.
inline Bytes With(Bytes bytes, size_t at, uint32_t word, bool big = false) {
  return bytes.replace(at, 4, Encoder({big, false}).Word(word).bytes);
}

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

// A signed message; trailer contains the signature. part: the plain message, or a result of Sealed.
inline Bytes Enveloped(Form form, const Bytes& part, const std::string& user, const Bytes& trailer,
                       uint32_t version = 1) {
  const auto length = static_cast<uint32_t>(part.size() + trailer.size());
  return Encoder(form).Word(32).Word(version).Word(form.big).Word(!form.ebcdic).Word(length).Text(user, 12).bytes +
         part + trailer;
}

// The part of the envelope that a signature covers.
inline Bytes Words(uint32_t version, size_t part, const std::string& user) {
  return Encoder({true, false}).Word(version).Word(static_cast<uint32_t>(part + 96)).Text(user, 12).bytes;
}

// A message signed with the key of this 32-byte seed. The nonce of up to 16 bytes is padded with zeros.
inline Bytes Signed(Form form, const Bytes& part, const std::string& user, const uint8_t* seed, uint64_t milliseconds,
                    Bytes nonce, uint32_t version = 1) {
  nonce.resize(16);
  const Bytes mark = version == 1 ? "MQSIGN01" : "MQSIGN02";
  const Bytes head = Encoder({true, false}).Raw(mark).Number(milliseconds, 8).Raw(nonce).bytes;
  const Bytes covered = head + Words(version, part.size(), user) + part;
  uint8_t open[32], secret[64], signature[64];
  crypto_sign_seed_keypair(open, secret, seed);
  crypto_sign_state state;
  crypto_sign_init(&state);
  crypto_sign_update(&state, reinterpret_cast<const uint8_t*>(covered.data()), covered.size());
  crypto_sign_final_create(&state, signature, nullptr, secret);
  return Enveloped(form, part, user, head + Bytes(reinterpret_cast<char*>(signature), sizeof signature), version);
}

// A message of this user, encrypted for a recipient with this public key, and its seal; must be signed as version 2
// with the same time and nonce. weak: the one-time public key is zero, and therefore the shared secret as well.
inline Bytes Sealed(const Bytes& plain, const std::string& user, const std::string& recipient, const uint8_t* open,
                    uint64_t milliseconds, Bytes nonce, bool weak = false) {
  nonce.resize(16);
  uint8_t secret[32], mine[32], theirs[32], shared[32], key[32];
  randombytes_buf(secret, sizeof secret);
  crypto_scalarmult_base(mine, secret);
  const bool right =
      crypto_sign_ed25519_pk_to_curve25519(theirs, open) == 0 && crypto_scalarmult(shared, secret, theirs) == 0;
  Check(right, "seal");
  if (weak) std::fill_n(mine, 32, 0), std::fill_n(shared, 32, 0);
  const auto text = [](const uint8_t* bytes) { return Bytes(reinterpret_cast<const char*>(bytes), 32); };
  const auto data = [](const Bytes& bytes) { return reinterpret_cast<const uint8_t*>(bytes.data()); };
  const Bytes mixed = "MQSEAL02" + text(shared) + text(mine) + text(theirs);
  crypto_generichash(key, sizeof key, data(mixed), mixed.size(), nullptr, 0);
  const Bytes seal = Encoder({}).Text(recipient, 12).Word(0).Raw(text(mine)).bytes;
  const Bytes bound = Words(2, plain.size() + 64, user) + seal;
  const Bytes stamp = Encoder({true, false}).Number(milliseconds, 8).Raw(nonce).bytes;
  Bytes out(plain.size() + 16, '\0');
  crypto_aead_xchacha20poly1305_ietf_encrypt(reinterpret_cast<uint8_t*>(out.data()), nullptr, data(plain), plain.size(),
                                             data(bound), bound.size(), nullptr, data(stamp), key);
  return out.insert(plain.size(), seal);
}

}  // namespace sender
