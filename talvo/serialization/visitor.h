// The walker over the fields of a record. Four classes give the walk its meaning: to and from JSON (json_visitors.h),
// to and from the binary stream (file_visitors.h).
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "talvo/utility/export.h"
#include "talvo/utility/half.h"

namespace talvo::runtime {

class Serializable;

/// Version of the formats that this library writes, and the newest that it reads.
#define __SERIALIZATION_PROTOCOL_VERSION__ 20015u

/// Applies `action` to the type of each kind of field, in the order of the virtual operations of Visitor. Public, as is
/// a visitor that an application writes: five classes declare an operation for each of 25 types by it, and a list that
/// each header wrote out again would be missed by the next type.
#define TALVO_FOR_EACH_VISITED_TYPE(action)                                                                        \
  action(float) action(half_float::half) action(double) action(signed char) action(unsigned char) action(short)    \
      action(unsigned short) action(int) action(unsigned int) action(long long) action(unsigned long long)         \
          action(bool) action(char) action(std::string) action(std::vector<float>)                                 \
              action(std::vector<half_float::half>) action(std::vector<unsigned short>) action(std::vector<short>) \
                  action(std::vector<std::string>) action(Serializable) action(std::vector<int>)                   \
                      action(std::vector<long long>) action(std::vector<unsigned int>)                             \
                          action(std::vector<unsigned long long>) action(std::vector<std::vector<unsigned short>>)

/// One Visit for each kind of field takes the field's address and its key. Writing visitors read the field, reading
/// visitors fill it. A visitor belongs to one thread for the length of a walk.
class TALVO_API Visitor {
 public:
  Visitor() = default;
  Visitor(Visitor const&) = delete;
  Visitor& operator=(Visitor const&) = delete;
  virtual ~Visitor();

#define TALVO_VISIT(type) virtual void Visit(type* value, char const* key) = 0;
  TALVO_FOR_EACH_VISITED_TYPE(TALVO_VISIT)
#undef TALVO_VISIT

  /// Version of the data on the other side of this visitor; a VisitAttr may ask it which fields exist.
  unsigned int _serialization_protocol_version = __SERIALIZATION_PROTOCOL_VERSION__;
};

namespace support {
struct FieldType;
}  // namespace support

/// The base of this library's own visitors, to which the type of a field is a value: each Visit hands its field on.
class TALVO_API FieldVisitor : public Visitor {
 public:
#define TALVO_VISIT(type) void Visit(type* value, char const* key) override;
  TALVO_FOR_EACH_VISITED_TYPE(TALVO_VISIT)
#undef TALVO_VISIT

  virtual void VisitField(void* value, support::FieldType const& type, char const* key) = 0;
};

}  // namespace talvo::runtime
