// Camera frames in the NV21 form: H rows of W luminance bytes, then one V, U pair for each 2 by 2 block of pixels.
#pragma once

#include <string>
#include <vector>

namespace read_digits {

struct Frame {
  unsigned int width = 0, height = 0;  // even
  std::vector<unsigned char> nv21;     // 3 * width * height / 2 bytes
};

/// Degrees clockwise that bring a frame upright: 0, 90, 180 or 270; and where in the upright picture the digit is.
struct View {
  unsigned int turn = 0;
  unsigned int left = 0, top = 0, width = 0, height = 0;
};

/// An 8-bit gray picture as a frame; an odd side loses its last row or column. Throws std::runtime_error with the path.
Frame ReadPgm(std::string const& path);

/// A raw frame of a known size. Throws std::runtime_error with the path.
Frame ReadNv21(std::string const& path, unsigned int width, unsigned int height);

/// What a phone that lies turned sees: the picture enlarged, as dark ink on light paper, somewhere in a frame of 640 by
/// 480. `view` gets the turn and a box around the picture; both depend on `number`.
Frame Photograph(Frame const& picture, unsigned int number, View& view);

}  // namespace read_digits
