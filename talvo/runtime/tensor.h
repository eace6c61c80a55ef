// What a tensor is: its shape record, which also travels in model files, and the base of tensors in memory.
// The numbers of the three enumerations are part of the file formats.
#pragma once

#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

#include "talvo/serialization/serializable.h"
#include "talvo/utility/export.h"
#include "talvo/utility/invariant.h"

namespace talvo::runtime {

class Device;

/// Dimensions, element type, meaning of the axes, place and quantisation step of a tensor. A plain value, and a record
/// that model files may hold.
class TALVO_API TensorShape : public Serializable {
 public:
  enum DataType : unsigned int {
    FLOAT32 = 0,
    FLOAT16 = 1,
    INT32 = 2,
    INT16 = 3,
    INT8 = 4,
    UINT32 = 5,
    UINT16 = 6,
    UINT8 = 7,
  };

  /// The upper 16 bits name the device family. This library makes and accepts MainMemory alone.
  enum Location : unsigned int {
    CPUObject = 0x10000,
    MainMemory = 0x10001,
    OpenGLObject = 0x20000,
    OpenGLSSBO = 0x20001,
    OpenGLUBO = 0x20002,
    OpenGLImage = 0x20004,
    MetalObject = 0x40000,
    MetalBuffer = 0x41001,
    MetalNoCopyBuffer = 0x41002,
    MetalTempBuffer = 0x41004,
    MetalImage = 0x42001,
    MetalTempImage = 0x42002,
  };

  /// What the axes mean; memory is row-major over `dims` in every layout. C channels, H height, W width, N output
  /// channels of a weight or batch, G groups, S steps, L length. Lower-case letters are block axes of the size of the
  /// digit: in C4HW4 the channel c lies at (c / 4, h, w, c % 4). Three numbers serve further arrangements too:
  /// GN4C4HW4n4c also GN4C4HW4c4n and GHWN4C44c4n, GN8CHW8 also GNC8HW8, GNCHW also GCNHW.
  enum Layout : unsigned int {
    CHW = 0,
    HWC = 1,
    C4HW4 = 2,
    C8HW8 = 3,
    NCHW = 8,
    N4C4HW4n4c = 9,
    N8C8HW8n8c = 10,
    GNCHW = 11,
    GN4C4HW4n4c = 12,
    GC4N4HW4c4n = 15,
    GN8C8HW8n8c = 16,
    G4NCHW4 = 17,
    G8NCHW8 = 18,
    GN4CHW4 = 19,
    GN8CHW8 = 20,
    GN = 21,
    NHWC = 22,
    FLEXIABLE = 23,
    C = 24,
    GN2C2HW2c2n = 28,
    GN16C16HW16c16n = 29,
    SC = 30,
    GNCL = 32,
    CL = 33,
    N8C88c8n = 35,
    GN8C8HW8c8n = 36,
    GN4C8HW4n8c = 37,
    GN8C4HW8n4c = 38,
    GN4C8HW8c4n = 39,
  };

  /// What a shape says beyond its axes.
  class TALVO_API Extra : public Serializable {
   public:
    void VisitAttr(std::shared_ptr<Visitor> visitor) override;

    /// Quantisation exponent: a fixed-point tensor holds round(x * 2^step_size). 0 for float tensors.
    short step_size = 0;
  };

  /// No dims, and 0 for the three numbers.
  TensorShape();
  TensorShape(std::vector<unsigned int> dims, unsigned int data_type, unsigned int layout, unsigned int location,
              Extra extra);
  TensorShape(TensorShape const& other);
  TensorShape(TensorShape&& other) noexcept;
  TensorShape& operator=(TensorShape const& other);
  TensorShape& operator=(TensorShape&& other) noexcept;
  ~TensorShape() override;

  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  std::vector<unsigned int> dims;  // extent of each axis, outermost first
  unsigned int data_type = FLOAT32;
  unsigned int layout = CHW;
  unsigned int location = 0;
  Extra extra;
  // A field that joins these, or those of Extra, joins CopyNumbers of tensor_shape.cpp.
};

/// Bytes of one element. A number that is no data type ends the process.
inline unsigned int ElementSize(unsigned int data_type) {
  constexpr unsigned char kBytes[] = {4, 2, 4, 2, 1, 4, 2, 1};
  TALVO_INVARIANT_TEXT(data_type <= TensorShape::UINT8, "false && \"Invalid type\"");
  return kBytes[data_type];
}

/// Product of the extents, 1 for no dims. Assert: a product over 32 bits.
TALVO_API unsigned int ElementCount(std::vector<unsigned int> const& dims);

/// Bytes of a tensor of this shape. Assert: more than 32 bits can count. Ends the process on a number that is no data
/// type.
TALVO_API unsigned int ByteCount(TensorShape const& shape);

/// The extents as messages show them: "[3, 224, 224]".
TALVO_API std::string DimsText(std::vector<unsigned int> const& dims);

/// Writes six lines: dims and the names of location, data type and layout. A number without a name prints as an empty
/// one.
TALVO_API std::ostream& operator<<(std::ostream& stream, TensorShape const& shape);

/// A shape and its memory. Devices make tensors; shared pointers hold them, and the deleter that the device gave
/// decides what becomes of the memory.
class TALVO_API Tensor : public std::enable_shared_from_this<Tensor> {
 public:
  Tensor(TensorShape&& tensor_shape, void* first_element, Device* maker);
  Tensor(Tensor const&) = delete;
  Tensor& operator=(Tensor const&) = delete;
  virtual ~Tensor();

  /// The deleter that hands the memory back and deletes this tensor, whatever pointer it is called with.
  virtual std::function<void(void*)> GetDeleter() const = 0;

  TensorShape shape;
  void* data;
  Device* device;  // not counted: the device outlives its tensors
};

}  // namespace talvo::runtime
