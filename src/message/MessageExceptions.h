// The proxy's exceptions: empty, thrown by value.
#pragma once

namespace rpc_port::message::proxy {

class Exception {};
class NotConnectedSocketException : public Exception {};
class InvalidProtocolException : public Exception {};
class InvalidIDException : public Exception {};
class InvalidIOException : public Exception {};
class PermissionDeniedException : public Exception {};

}  // namespace rpc_port::message::proxy
