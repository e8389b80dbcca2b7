#include "foundation/base/Fail.h"

#include <velantrix/Buffer.h>

namespace Velantrix {

Buffer::Buffer(const void* data, unsigned int length, bool copy)
    : data_(static_cast<const unsigned char*>(data)), length_(length) {
  if (data == nullptr && length != 0) {
    fail({"Buffer", "Buffer"}, "There is a length, but no data.");
  }
  if (copy) {
    own_ = std::make_shared<const std::vector<unsigned char>>(data_, data_ + length_);
    data_ = own_->data();
  }
}

}  // namespace Velantrix
