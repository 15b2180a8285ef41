// A gRPC unary call over a Unix socket with the same payloads (256 B and 16 KiB), served
// by a second process ("grpc-bench serve PATH", which prints "ready" once it listens).
#include <grpcpp/grpcpp.h>

#include <cstring>
#include <memory>
#include <string>

#include "Harness.h"
#include "echo.grpc.pb.h"

using namespace bench;

namespace {

class EchoService final : public ::bench::Echo::Service {
  grpc::Status Call(grpc::ServerContext *, const ::bench::Blob *in, ::bench::Blob *out) override {
    out->set_data(in->data());
    return grpc::Status::OK;
  }
};

int Serve(const std::string &path) {
  EchoService service;
  grpc::ServerBuilder builder;
  builder.AddListeningPort("unix:" + path, grpc::InsecureServerCredentials());
  builder.RegisterService(&service);
  std::unique_ptr<grpc::Server> server = builder.BuildAndStart();
  if (!server) return 1;
  printf("ready\n");
  fflush(stdout);
  server->Wait();
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc > 2 && strcmp(argv[1], "serve") == 0) return Serve(argv[2]);
  TempDir dir;
  const std::string path = dir.path() + "/grpc.sock";
  std::string line;
  Child server({"/proc/self/exe", "serve", path}, {}, &line);
  if (line != "ready") {
    fprintf(stderr, "grpc: the echo server did not come up\n");
    return 1;
  }
  auto stub = ::bench::Echo::NewStub(
      grpc::CreateChannel("unix:" + path, grpc::InsecureChannelCredentials()));
  for (size_t n : {size_t(256), size_t(16384)}) {
    ::bench::Blob request, reply;
    request.set_data(std::string(n, 'p'));
    Measure(std::string("grpc-") + (n == 256 ? "256B" : "16KiB"), 200, 5000, [&] {
      grpc::ClientContext context;
      return stub->Call(&context, request, &reply).ok() && reply.data().size() == n;
    });
  }
  return 0;
}
