// All that the installed headers declare, linked and, where nothing is needed for it, made; and a tensor at work.
#include <talvo/talvo.h>

#include <iostream>
#include <set>

namespace {

void const* volatile kept;
int failures = 0;
std::set<std::string> made_kernels;

template <class Function>
bool Keep(Function* function) {
  kept = reinterpret_cast<void const*>(function);
  return true;
}

// A kernel's class, or the name that its family gives it, is its registered name.
template <class T>
bool MakeComplete([[maybe_unused]] std::string const& name) {
  if constexpr (std::is_default_constructible_v<T>) {
    auto const object = std::make_unique<T>();
    kept = object.get();
    if constexpr (std::is_base_of_v<talvo::runtime::IKernel, T>) {
      made_kernels.insert(object->GetName());
      if (!name.empty() && object->GetName() != name) failures += 1;
    }
  } else if constexpr (std::is_polymorphic_v<T>) {
    kept = &typeid(T);
  }
  return true;
}

// Types that are declared only, such as those of another library, have no objects.
template <class T>
auto Make(char const* name) -> decltype(sizeof(T) != 0) {
  return MakeComplete<T>(name);
}

template <class T>
bool Make(...) {
  return true;
}

}  // namespace

#include "exports.inc"

int main() {
  std::shared_ptr<talvo::runtime::Context> context;
  talvo::utility::create_context(context, 64);
  float const values[] = {1, 2, 3, 4, 5, 6};
  auto const x = context->device_cpu->CreateF32FlexiableMainMemory({2, 3}, values);
  if (*x->Permute({1, 0})->Locate2D<float>(2, 1) != 6.0f) failures += 1;
  talvo::runtime::ClassRegistry<std::shared_ptr<talvo::runtime::IKernel>> kernels;
  talvo::runtime::ClassRegistry<std::shared_ptr<talvo::runtime::InferenceParam>> params;
  talvo::utility::init_register_operators(kernels, params);
  for (std::string const& name : kernels.GetKeys()) failures += made_kernels.count(name) == 0;
  std::cout << made_kernels.size() << " kernels made, " << failures << " failures\n";
  return failures;
}
