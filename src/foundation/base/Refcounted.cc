#include <velantrix/Exception.h>
#include <velantrix/Refcounted.h>

namespace Velantrix {

RefImpl::~RefImpl() = default;

namespace detail {

void throwNullSharedObject() {
  throw Exception("RefCounted constructor for RefImpl failed.", Exception::kFailure, nullptr, 0);
}

void throwEmptyHandle(const char* operation, unsigned int line) {
  // The place is that of the handles' first home. Whoever reads logs knows the failure by it.
  throw Exception(operation, Exception::kEmptyHandle, "../../../velantrix/include2/VlxRefcounted",
                  line);
}

}  // namespace detail

}  // namespace Velantrix
