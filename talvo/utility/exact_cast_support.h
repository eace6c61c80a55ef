// The cast to a class that an object nearly always is exactly. Internal.
#pragma once

#include <typeinfo>

namespace talvo::utility {

/// What dynamic_cast gives, without its walk through the class's bases where the object is a `To` and nothing derived.
template <class To, class From>
To* CastTo(From* from) {
  if (from != nullptr && typeid(*from) == typeid(To)) return static_cast<To*>(from);
  return dynamic_cast<To*>(from);
}

}  // namespace talvo::utility
