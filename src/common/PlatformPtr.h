// Owning pointers for objects released by one free function (the platform layer's, or
// any C library's through ReleaseWith). Use them where no release order is fixed.
#pragma once

#include <app_info.h>
#include <bundle.h>
#include <rpc-port.h>

#include <cstdlib>
#include <memory>

namespace talvo {

// Deleter that calls Release; the release function's result is ignored.
template <auto Release>
struct ReleaseWith {
  template <typename T>
  void operator()(T *object) const {
    Release(object);
  }
};

using BundlePtr = std::unique_ptr<bundle, ReleaseWith<bundle_free>>;
using ParcelPtr = std::unique_ptr<rpc_port_parcel_s, ReleaseWith<rpc_port_parcel_destroy>>;
using AppInfoPtr = std::unique_ptr<app_info_s, ReleaseWith<app_info_destroy>>;
// Text allocated with malloc by the platform (free with free()).
using MallocTextPtr = std::unique_ptr<char, ReleaseWith<std::free>>;

}  // namespace talvo
