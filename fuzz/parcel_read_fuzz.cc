// Parcel reads of hostile bytes. The input is a count, that many operation codes (typed
// reads, and writes that append to the same parcel), then the parcel's bytes, which
// arrive as one frame on a channel as they would from a peer. A failed read must yield
// 0, false or null; the values that reads return must survive a round trip through a
// new parcel sent over the channel, with nothing left over.
#include "fuzz_env.h"

enum Kind { kInt, kBool, kString, kBundle };  // codes 0-3 read, 4-7 write these kinds

// A value as its kind and bytes: an int's own bytes, a bool as 0 or 1, a string's text, a
// bundle's encoding.
using Values = std::vector<std::pair<int, std::string>>;

static rpc_port_s ours, peer;  // the two ends of one socket pair

static std::string IntBytes(int i) { return std::string(reinterpret_cast<char *>(&i), 4); }

static rpc_port_parcel_h Receive() {
  rpc_port_parcel_h parcel = nullptr;
  if (rpc_port_parcel_create_from_port(&parcel, &ours) != 0 || !parcel) abort();
  return parcel;
}

// Appends what the read returned when it succeeded. The outputs start out as values that a
// failed read must overwrite.
static void Read(rpc_port_parcel_h p, int kind, Values &values) {
  int i = -1;
  bool b = true;
  char *s = reinterpret_cast<char *>(1);
  bundle *bd = reinterpret_cast<bundle *>(1);
  int r = kind == kInt      ? rpc_port_parcel_read_int32(p, &i)
          : kind == kBool   ? rpc_port_parcel_read_bool(p, &b)
          : kind == kString ? rpc_port_parcel_read_string(p, &s)
                            : rpc_port_parcel_read_bundle(p, &bd);
  bool cleared = kind == kInt ? i == 0 : kind == kBool ? !b : kind == kString ? !s : !bd;
  if (r != 0 ? !cleared : (kind >= kString && cleared)) abort();
  if (r == 0)
    values.emplace_back(kind, kind == kInt      ? IntBytes(i)
                              : kind == kBool   ? std::string(1, b)
                              : kind == kString ? std::string(s)
                                                : talvo_fuzz::Encode(bd));
  if (kind == kString) free(s);
  if (kind == kBundle) bundle_free(bd);
}

static void Write(rpc_port_parcel_h p, int kind, const std::string &v) {
  int i = 0;
  bundle *b = nullptr;
  if (kind == kInt) memcpy(&i, v.data(), sizeof i);
  if (kind == kBundle &&
      bundle_decode_raw(reinterpret_cast<const unsigned char *>(v.data()), v.size(), &b) != 0)
    abort();
  int r = kind == kInt      ? rpc_port_parcel_write_int32(p, i)
          : kind == kBool   ? rpc_port_parcel_write_bool(p, v[0])
          : kind == kString ? rpc_port_parcel_write_string(p, v.c_str())
                            : rpc_port_parcel_write_bundle(p, b);
  bundle_free(b);
  if (r != 0) abort();
}

// A value of kind to write, made from the upper bits of its code.
static std::string Made(int kind, int seed) {
  if (kind != kBundle)
    return kind == kInt ? IntBytes(seed * 16777619)
           : kind == kBool ? std::string(1, seed & 1) : std::string(seed, 'w');
  bundle *b = bundle_create();
  bundle_add_str(b, "written", std::to_string(seed).c_str());
  std::string v = talvo_fuzz::Encode(b);
  bundle_free(b);
  return v;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  size_t ops = size ? data[0] % 33 : 0;
  // The payload stays below the socket buffer, so that a send never waits for the reader.
  if (size < 1 + ops || size - 1 - ops > 64 * 1024) return 0;
  static const bool linked = [] {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) abort();
    ours.channel = velna_channel_new(fds[0], RPC_PORT_MAX_PARCEL_SIZE);
    peer.channel = velna_channel_new(fds[1], RPC_PORT_MAX_PARCEL_SIZE);
    return ours.channel && peer.channel;
  }();
  if (!linked || velna_channel_send(peer.channel, data + 1 + ops, size - 1 - ops) != 0) abort();

  rpc_port_parcel_h parcel = Receive();
  Values values;
  for (size_t k = 1; k <= ops; ++k)
    if (data[k] & 4) Write(parcel, data[k] & 3, Made(data[k] & 3, data[k] >> 3));
    else Read(parcel, data[k] & 3, values);
  rpc_port_parcel_destroy(parcel);

  rpc_port_parcel_h out = nullptr;
  if (rpc_port_parcel_create(&out) != 0) abort();
  for (const auto &v : values) Write(out, v.first, v.second);
  if (rpc_port_parcel_send(out, &peer) != 0) abort();
  rpc_port_parcel_destroy(out);

  rpc_port_parcel_h in = Receive();
  Values again;
  for (const auto &v : values) Read(in, v.first, again);
  int extra = 0;
  if (again != values || rpc_port_parcel_read_int32(in, &extra) == 0) abort();
  rpc_port_parcel_destroy(in);
  return 0;
}
