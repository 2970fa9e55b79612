// parts.cc - uses Google Benchmark to time single calls that make no system calls, to try out changes to the libraries.
#include <benchmark/benchmark.h>
#include <sodium.h>

#include <cstring>

#include "bench/measure.hh"
#include "bench/node_end.hh"
#include "queue/queue.h"

namespace {

using namespace bench;

void Descriptor(benchmark::State& state) {
  const auto size = static_cast<uint32_t>(state.range(0));
  for (auto _ : state) {
    void* block = nullptr;
    Check(fNewMemory(&block, sizeof(IoBuffer), "MQNODE"), "fNewMemory");
    auto* const desc = static_cast<IoBuffer*>(block);
    CreateBuffer(desc, size);
    benchmark::DoNotOptimize(desc->data);
    DeleteBuffer(desc);
    FreeMemory(desc);
  }
}
BENCHMARK(Descriptor)->Arg(200)->Arg(65672)->Arg(1048712);

void Build(benchmark::State& state) {
  PcfMessage* const msg = NewMessage(64);
  for (auto _ : state) {
    mqc_begin(msg, 7);
    mqc_add_int32(msg, 1, 42);
    mqc_add_text(msg, 2, "a text of some length");
    benchmark::DoNotOptimize(mqc_add_int64(msg, 3, 1));
  }
  mqc_message_free(msg);
}
BENCHMARK(Build);

void Parse(benchmark::State& state) {
  PcfMessage* const msg = NewMessage(64);
  for (auto _ : state) benchmark::DoNotOptimize(AlienPcfToNative(msg) && RawToPcf(msg));
  mqc_message_free(msg);
}
BENCHMARK(Parse);

void PutAndGet(benchmark::State& state) {
  Queue* queue = Qalloc();
  Check(queue != nullptr, "Qalloc");
  for (auto _ : state) {
    Qput(queue, queue);
    benchmark::DoNotOptimize(Qget(queue));
  }
  Qfree(&queue);
}
BENCHMARK(PutAndGet);

// Messages sealed by this process's user for itself, and, as a lower bound, the libsodium calls that sealing requires.
MqcSigner* SealingSigner() {
  ShareKeys();
  static MqcSigner* const signer = [] {
    Check(mqc_set_opener(SharedSigner()), "mqc_set_opener");
    return mqc_signer_sealing(SharedSigner(), mqc_signer_user(SharedSigner()), nullptr, 0);
  }();
  Check(signer != nullptr, "mqc_signer_sealing");
  return signer;
}

void Seal(benchmark::State& state) {
  MqcSigner* const signer = SealingSigner();
  PcfMessage* const msg = MessageToSign(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    IoBuffer sent = {};
    Check(mqc_sign(signer, msg, &sent), "mqc_sign");
    DeleteBuffer(&sent);
  }
  mqc_message_free(msg);
}
BENCHMARK(Seal)->Arg(64)->Arg(65536);

void Open(benchmark::State& state) {
  MqcSigner* const signer = SealingSigner();
  PcfMessage* const msg = MessageToSign(static_cast<size_t>(state.range(0)));
  PcfMessage* const received = mqc_message_new(0);
  for (auto _ : state) {
    IoBuffer sent = {};
    Check(mqc_sign(signer, msg, &sent), "mqc_sign");
    IoBuffer part = Receive(sent, received);
    const double start = Seconds();
    Check(mqc_authenticate(&received->secHeader, &part, received), "mqc_authenticate");
    state.SetIterationTime(Seconds() - start);
    DeleteBuffer(&sent);
  }
  mqc_message_free(msg);
  mqc_message_free(received);
}
BENCHMARK(Open)->Arg(64)->Arg(65536)->UseManualTime();

// A message and the keys of both parties.
struct Bare {
  explicit Bare(size_t body) : bytes(sizeof(MsgHeader) + body) {
    crypto_sign_keypair(sign_public, sign_secret);
    crypto_box_keypair(open_public, open_secret);
  }
  void DeriveKey(const uint8_t* secret, const uint8_t* other) {
    uint8_t mixed[104] = {};
    Check(crypto_scalarmult(mixed, secret, other) == 0, "crypto_scalarmult");
    crypto_generichash(key, sizeof key, mixed, sizeof mixed, nullptr, 0);
  }
  crypto_sign_state Digest() const {
    crypto_sign_state state;
    crypto_sign_init(&state);
    crypto_sign_update(&state, head, 52);
    crypto_sign_update(&state, bytes.data(), bytes.size());
    crypto_sign_update(&state, head, 64);
    return state;
  }
  void Seal() {
    uint8_t once[32];
    randombytes_buf(once, sizeof once);
    crypto_scalarmult_base(once_public, once);
    DeriveKey(once, open_public);
    randombytes_buf(nonce, 16);
    crypto_aead_xchacha20poly1305_ietf_encrypt_detached(bytes.data(), tag, nullptr, bytes.data(), bytes.size(), head,
                                                        68, nullptr, nonce, key);
    crypto_sign_state state = Digest();
    crypto_sign_final_create(&state, signature, nullptr, sign_secret);
  }
  void Open() {
    crypto_sign_state state = Digest();
    Check(crypto_sign_final_verify(&state, signature, sign_public) == 0, "crypto_sign_final_verify");
    DeriveKey(open_secret, once_public);
    const int opened = crypto_aead_xchacha20poly1305_ietf_decrypt_detached(bytes.data(), nullptr, bytes.data(),
                                                                           bytes.size(), tag, head, 68, nonce, key);
    Check(opened == 0, "decrypt");
  }
  std::vector<uint8_t> bytes;
  uint8_t sign_public[32], sign_secret[64], open_public[32], open_secret[32];
  uint8_t head[68] = {}, nonce[24] = {}, once_public[32], key[32], tag[16], signature[64];
};

void SealBare(benchmark::State& state) {
  Bare bare(static_cast<size_t>(state.range(0)));
  for (auto _ : state) bare.Seal();
}
BENCHMARK(SealBare)->Arg(64)->Arg(65536);

void OpenBare(benchmark::State& state) {
  Bare bare(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    bare.Seal();
    const double start = Seconds();
    bare.Open();
    state.SetIterationTime(Seconds() - start);
  }
}
BENCHMARK(OpenBare)->Arg(64)->Arg(65536)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
