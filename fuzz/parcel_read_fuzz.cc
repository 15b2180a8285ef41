// Parcel reads of untrusted bytes. The input is a count, that many operation codes
// (typed reads, and writes that append to the same parcel), then the parcel's bytes,
// which arrive as one frame on a channel as they would from a peer. A failed read must
// yield 0, false or null; the values that reads return must survive a round trip
// through a new parcel sent over the channel.
#include <bundle.h>
#include <rpc-port.h>

#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

extern "C" {
#include "channel_internal.h"
#include "rpc_port_internal.h"
}

namespace {

constexpr size_t kMaxOps = 32;
constexpr size_t kMaxPayload = 64 * 1024;  // stays below the socket buffer

enum Op { kReadInt, kReadBool, kReadString, kReadBundle, kWriteInt, kWriteBool, kWriteString,
          kWriteBundle };

struct Value {
  Op kind = kReadInt;
  int i = 0;
  bool b = false;
  std::string text;  // a string, or a bundle's encoding
};

// Our end reads and writes whole frames on peer_fd; the parcel side is a channel.
struct Link {
  int peer_fd = -1;
  rpc_port_s port{};
};

Link &GetLink() {
  static Link link = [] {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) abort();
    Link l;
    l.peer_fd = fds[1];
    l.port.channel = velna_channel_new(fds[0], RPC_PORT_MAX_PARCEL_SIZE);
    if (!l.port.channel) abort();
    return l;
  }();
  return link;
}

void WriteAll(int fd, const void *data, size_t len) {
  const auto *p = static_cast<const unsigned char *>(data);
  while (len > 0) {
    ssize_t w = write(fd, p, len);
    if (w <= 0) abort();
    p += w;
    len -= static_cast<size_t>(w);
  }
}

void ReadAll(int fd, void *data, size_t len) {
  auto *p = static_cast<unsigned char *>(data);
  while (len > 0) {
    ssize_t r = read(fd, p, len);
    if (r <= 0) abort();
    p += r;
    len -= static_cast<size_t>(r);
  }
}

void SendFrame(Link &link, const uint8_t *payload, size_t len) {
  unsigned char head[VELNA_FRAME_HEADER_SIZE];
  uint32_t words[2] = {VELNA_FRAME_MAGIC, static_cast<uint32_t>(len)};
  for (int w = 0; w < 2; ++w)
    for (int k = 0; k < 4; ++k) head[w * 4 + k] = static_cast<unsigned char>(words[w] >> (8 * k));
  WriteAll(link.peer_fd, head, sizeof head);
  if (len) WriteAll(link.peer_fd, payload, len);
}

// Sends the frame that the channel wrote straight back to it.
void EchoFrame(Link &link) {
  unsigned char head[VELNA_FRAME_HEADER_SIZE];
  ReadAll(link.peer_fd, head, sizeof head);
  uint32_t len = head[4] | head[5] << 8 | head[6] << 16 | static_cast<uint32_t>(head[7]) << 24;
  std::vector<uint8_t> payload(len);
  if (len) ReadAll(link.peer_fd, payload.data(), len);
  SendFrame(link, payload.data(), len);
}

rpc_port_parcel_h TakeParcel(Link &link) {
  rpc_port_parcel_h parcel = nullptr;
  if (rpc_port_parcel_create_from_port(&parcel, &link.port) != 0 || !parcel) abort();
  return parcel;
}

std::string Encode(bundle *b) {
  unsigned char *raw = nullptr;
  size_t len = 0;
  if (bundle_encode_raw(b, &raw, &len) != 0) abort();
  std::string out(reinterpret_cast<char *>(raw), len);
  free(raw);
  return out;
}

// One read of the given kind; appends what it returned to values when it succeeded.
void Read(rpc_port_parcel_h parcel, Op kind, std::vector<Value> *values) {
  Value v;
  v.kind = kind;
  int r = 0;
  switch (kind) {
    case kReadInt:
      r = rpc_port_parcel_read_int32(parcel, &v.i);
      if (r != 0 && v.i != 0) abort();
      break;
    case kReadBool:
      r = rpc_port_parcel_read_bool(parcel, &v.b);
      if (r != 0 && v.b) abort();
      break;
    case kReadString: {
      char *s = reinterpret_cast<char *>(1);
      r = rpc_port_parcel_read_string(parcel, &s);
      if ((r != 0) != (s == nullptr)) abort();
      if (s) v.text = s;
      free(s);
      break;
    }
    default: {
      bundle *b = reinterpret_cast<bundle *>(1);
      r = rpc_port_parcel_read_bundle(parcel, &b);
      if ((r != 0) != (b == nullptr)) abort();
      if (b) v.text = Encode(b);
      bundle_free(b);
      break;
    }
  }
  if (r == 0 && values) values->push_back(v);
}

void Write(rpc_port_parcel_h parcel, Op kind, int seed) {
  switch (kind) {
    case kWriteInt:
      rpc_port_parcel_write_int32(parcel, seed * 16777619);
      break;
    case kWriteBool:
      rpc_port_parcel_write_bool(parcel, seed & 1);
      break;
    case kWriteString:
      rpc_port_parcel_write_string(parcel, std::string(static_cast<size_t>(seed), 'w').c_str());
      break;
    default: {
      bundle *b = bundle_create();
      bundle_add_str(b, "written", std::to_string(seed).c_str());
      rpc_port_parcel_write_bundle(parcel, b);
      bundle_free(b);
      break;
    }
  }
}

// Writes values into a new parcel, sends it over the channel and reads them back.
void CheckRoundTrip(Link &link, const std::vector<Value> &values) {
  rpc_port_parcel_h out = nullptr;
  if (rpc_port_parcel_create(&out) != 0) abort();
  for (const Value &v : values) {
    int r = 0;
    if (v.kind == kReadInt) r = rpc_port_parcel_write_int32(out, v.i);
    if (v.kind == kReadBool) r = rpc_port_parcel_write_bool(out, v.b);
    if (v.kind == kReadString) r = rpc_port_parcel_write_string(out, v.text.c_str());
    if (v.kind == kReadBundle) {
      bundle *b = nullptr;
      if (bundle_decode_raw(reinterpret_cast<const unsigned char *>(v.text.data()),
                            v.text.size(), &b) != 0)
        abort();
      r = rpc_port_parcel_write_bundle(out, b);
      bundle_free(b);
    }
    if (r != 0) abort();
  }
  if (rpc_port_parcel_send(out, &link.port) != 0) abort();
  rpc_port_parcel_destroy(out);
  EchoFrame(link);

  rpc_port_parcel_h in = TakeParcel(link);
  std::vector<Value> again;
  for (const Value &v : values) Read(in, v.kind, &again);
  if (again.size() != values.size()) abort();
  for (size_t k = 0; k < values.size(); ++k)
    if (again[k].i != values[k].i || again[k].b != values[k].b ||
        again[k].text != values[k].text)
      abort();
  int extra = 0;
  if (rpc_port_parcel_read_int32(in, &extra) == 0) abort();  // nothing follows
  rpc_port_parcel_destroy(in);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  size_t ops = data[0] % (kMaxOps + 1);
  if (size < 1 + ops || size - 1 - ops > kMaxPayload) return 0;
  const uint8_t *codes = data + 1;
  const uint8_t *payload = data + 1 + ops;
  size_t payload_len = size - 1 - ops;

  Link &link = GetLink();
  SendFrame(link, payload, payload_len);
  rpc_port_parcel_h parcel = TakeParcel(link);

  std::vector<Value> values;
  for (size_t k = 0; k < ops; ++k) {
    Op kind = static_cast<Op>(codes[k] & 7);
    if (kind <= kReadBundle)
      Read(parcel, kind, &values);
    else
      Write(parcel, kind, codes[k] >> 3);
  }
  rpc_port_parcel_destroy(parcel);

  CheckRoundTrip(link, values);
  return 0;
}
