// Marks and deliveries of this process alone, for where the cache cannot be written. What is oldest goes
// when there is too much.
//
// Whoever uses it keeps others out meanwhile.
#pragma once

#include "retrieval/FetchDesk.h"

#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace Velantrix::Crypto::PKX509 {

class DeskMemory {
 public:
  static constexpr std::size_t kMarks = 1024;
  static constexpr std::size_t kBytes = std::size_t{64} * 1024 * 1024;

  using SharedDelivery = std::shared_ptr<const FetchDesk::Delivery>;

  std::optional<FetchDesk::Mark> mark(const std::string& key) const;
  void keep(const std::string& key, const FetchDesk::Mark& mark);
  void forgetMark(const std::string& key);

  // Null when there is none.
  SharedDelivery delivery(const std::string& key) const;
  void keep(const std::string& key, const SharedDelivery& delivery);
  void forgetDelivery(const std::string& key);

 private:
  void makeRoom(std::size_t bytes);

  std::map<std::string, FetchDesk::Mark> marks_;
  std::map<std::string, SharedDelivery> deliveries_;
  std::size_t bytes_ = 0;
};

}  // namespace Velantrix::Crypto::PKX509
