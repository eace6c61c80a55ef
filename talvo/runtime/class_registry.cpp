#include "talvo/runtime/class_registry.h"

#include <utility>

namespace talvo::runtime {

template <typename T>
bool ClassRegistry<T>::Register(std::string const& name, std::function<T()> creator, bool overwrite) {
  if (!overwrite && creators_.count(name) != 0) return false;
  creators_[name] = std::move(creator);
  return true;
}

template <typename T>
bool ClassRegistry<T>::Unregister(std::string const& name) {
  return creators_.erase(name) != 0;
}

template <typename T>
T ClassRegistry<T>::Create(std::string const& name) const {
  auto const creator = creators_.find(name);
  return creator != creators_.end() ? creator->second() : T();
}

template <typename T>
std::vector<std::string> ClassRegistry<T>::GetKeys() const {
  std::vector<std::string> names;
  names.reserve(creators_.size());
  for (auto const& creator : creators_) names.push_back(creator.first);
  return names;
}

template class ClassRegistry<std::shared_ptr<IKernel>>;
template class ClassRegistry<std::shared_ptr<InferenceParam>>;
template class ClassRegistry<std::shared_ptr<Serializable>>;

}  // namespace talvo::runtime
