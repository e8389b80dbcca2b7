#include <velantrix/Buffer.h>
#include <velantrix/Exception.h>

namespace Velantrix {

Buffer::Buffer(const void* data, unsigned int length, bool copy)
    : data_(static_cast<const unsigned char*>(data)), length_(length) {
  if (data == nullptr && length != 0) {
    throw Exception("Buffer", Exception::kFailure, "Buffer", __LINE__)
        .stringParameter("There is a length, but no data.");
  }
  if (copy) {
    own_ = std::make_shared<const std::vector<unsigned char>>(data_, data_ + length_);
    data_ = own_->data();
  }
}

}  // namespace Velantrix
