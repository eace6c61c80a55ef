// A table of names and makers, which the front doors of the registries share. Internal.
#pragma once

#include <cstddef>
#include <memory>

#include "talvo/runtime/class_registry.h"
#include "talvo/runtime/kernel.h"

namespace talvo::utility {

template <class Base>
struct Entry {
  char const* name;
  Base* (*make)();  // a new object, the caller's
};

// A plain pointer: the block of a shared one costs each class another class, with its table and its type.
template <class Base, class Class>
Base* Make() {
  return new Class;
}

// The registered name is the class's.
#define TALVO_KERNEL(Class) \
  { #Class, Make < runtime::IKernel, kernel::Class> }

/// Names that are present already keep their factories. One body for tables of any length.
template <class Base>
void RegisterEntries(Entry<Base> const* entries, std::size_t count,
                     runtime::ClassRegistry<std::shared_ptr<Base>>& registry) {
  for (std::size_t i = 0; i < count; ++i) {
    auto const make = entries[i].make;
    registry.Register(
        entries[i].name, [make] { return std::shared_ptr<Base>(make()); }, false);
  }
}

template <class Base, std::size_t kCount>
void RegisterAll(Entry<Base> const (&entries)[kCount], runtime::ClassRegistry<std::shared_ptr<Base>>& registry) {
  RegisterEntries(entries, kCount, registry);
}

using KernelRegistry = runtime::ClassRegistry<std::shared_ptr<runtime::IKernel>>;

}  // namespace talvo::utility
