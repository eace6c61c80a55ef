// A table from name to factory. The application owns its registries; there is no global one and nothing registers
// itself.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "talvo/utility/export.h"

namespace talvo::runtime {

class IKernel;
class InferenceParam;
class Serializable;

/// T is a shared pointer to the base class. Instantiated for IKernel, InferenceParam and Serializable. Not locked.
template <typename T>
class ClassRegistry {
 public:
  /// Stores `creator` under `name`. False, and nothing changes, when the name is present and `overwrite` is false.
  bool Register(std::string const& name, std::function<T()> creator, bool overwrite);

  /// Removes an entry. False when there is none.
  bool Unregister(std::string const& name);

  /// A new object from the factory of `name`; empty when the name is not present. An empty factory throws
  /// std::bad_function_call.
  T Create(std::string const& name) const;

  /// All names, in no particular order.
  std::vector<std::string> GetKeys() const;

 private:
  std::unordered_map<std::string, std::function<T()>> creators_;
};

extern template class TALVO_API ClassRegistry<std::shared_ptr<IKernel>>;
extern template class TALVO_API ClassRegistry<std::shared_ptr<InferenceParam>>;
extern template class TALVO_API ClassRegistry<std::shared_ptr<Serializable>>;

}  // namespace talvo::runtime
