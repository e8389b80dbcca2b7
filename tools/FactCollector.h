// Collects the facts of an object of which parts may be broken.
#pragma once

#include "Facts.h"
#include "Input.h"

#include <exception>
#include <new>
#include <string>
#include <string_view>
#include <utility>

namespace Velantrix::Tool {

class FactCollector {
 public:
  FactCollector(const std::string& file, const char* type)
      : facts_(Facts::Object{{"file", file}, {"type", type}}), problems_(Facts::Object()) {}

  /// The value that @p read returns; null and a problem when it throws.
  template <class Read>
  void add(std::string_view key, Read read) {
    Facts& fact = facts_[key];
    try {
      fact = read();
    } catch (const std::bad_alloc&) {
      throw;
    } catch (const std::exception& error) {
      problems_[key] = reasonOf(error);
    }
  }

  Facts take() {
    facts_["problems"] = std::move(problems_);
    return std::move(facts_);
  }

 private:
  Facts facts_;
  Facts problems_;
};

}  // namespace Velantrix::Tool
