#include "platform/linux/pictures/jpeg_encoder.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "platform/linux/pictures/jpeg_guard.h"

namespace vesko {
namespace {

/// libjpeg's way out of bytes: into the given memory, and no further.
struct BoundedOutput {
  jpeg_destination_mgr base{};  // first, so that libjpeg's pointer is that of the whole
  std::size_t room;
  bool full = false;
  bool overflowed = false;
  /// libjpeg asks for more as soon as nothing is left, even where it has nothing more to write.
  std::array<JOCTET, 16> beyond;

  explicit BoundedOutput(std::span<std::byte> out) : room(out.size()) {
    base.next_output_byte = reinterpret_cast<JOCTET*>(out.data());
    base.free_in_buffer = out.size();
    base.init_destination = [](j_compress_ptr) {};
    base.term_destination = [](j_compress_ptr) {};
    base.empty_output_buffer = [](j_compress_ptr file) -> boolean {
      auto& output = *reinterpret_cast<BoundedOutput*>(file->dest);
      if (output.full) {
        output.overflowed = true;
        file->err->error_exit(reinterpret_cast<j_common_ptr>(file));
      }
      output.full = true;
      output.base.next_output_byte = output.beyond.data();
      output.base.free_in_buffer = output.beyond.size();
      return TRUE;
    };
  }

  bool exceeded() const { return overflowed || (full && base.free_in_buffer < beyond.size()); }
  std::size_t length() const { return full ? room : room - base.free_in_buffer; }
};

class JpegWriter {
 public:
  explicit JpegWriter(std::span<std::byte> out) : output_(out) { file_.err = guard_.handlers(); }
  ~JpegWriter() { jpeg_destroy_compress(&file_); }
  JpegWriter(const JpegWriter&) = delete;
  JpegWriter& operator=(const JpegWriter&) = delete;

  bool write(PixelSize size, double quality, const PictureCodec::RowSource& rows);
  const BoundedOutput& output() const { return output_; }

 private:
  bool begin(PixelSize size, int quality);
  bool writeRows(const RowBlock& block);

  JpegGuard guard_;
  jpeg_compress_struct file_{};
  BoundedOutput output_;
};

bool JpegWriter::begin(PixelSize size, int quality) {
  return guard_.run([&] {
    jpeg_create_compress(&file_);
    file_.dest = &output_.base;
    file_.image_width = static_cast<JDIMENSION>(size.width);
    file_.image_height = static_cast<JDIMENSION>(size.height);
    file_.input_components = 4;
    file_.in_color_space = JCS_EXT_BGRX;
    jpeg_set_defaults(&file_);
    jpeg_set_quality(&file_, quality, TRUE);
    jpeg_start_compress(&file_, TRUE);
  });
}

bool JpegWriter::writeRows(const RowBlock& block) {
  std::array<JSAMPROW, 16> rows;
  for (int done = 0; done < block.count;) {
    const int count = std::min(static_cast<int>(rows.size()), block.count - done);
    for (int i = 0; i < count; ++i) {
      // libjpeg only reads them.
      auto* row = const_cast<std::uint32_t*>(block.first + (done + i) * block.stride);
      rows[static_cast<std::size_t>(i)] = reinterpret_cast<JSAMPROW>(row);
    }
    if (!guard_.run(
            [&] { jpeg_write_scanlines(&file_, rows.data(), static_cast<JDIMENSION>(count)); }))
      return false;
    done += count;
  }
  return true;
}

bool JpegWriter::write(PixelSize size, double quality, const PictureCodec::RowSource& rows) {
  if (!begin(size, static_cast<int>(std::lround(quality * 100)))) return false;
  while (file_.next_scanline < file_.image_height) {
    const auto y = static_cast<int>(file_.next_scanline);
    RowBlock block = rows(y);
    block.count = std::min(block.count, size.height - y);
    if (block.count < 1 || !writeRows(block)) return false;
  }
  return guard_.run([&] { jpeg_finish_compress(&file_); });
}

}  // namespace

std::expected<std::size_t, JpegError> encodeJpegFile(PixelSize size, double quality,
                                                     const PictureCodec::RowSource& rows,
                                                     std::span<std::byte> out) {
  JpegWriter writer(out);
  const bool written = writer.write(size, quality, rows);
  if (writer.output().exceeded()) return std::unexpected(JpegError::tooLong);
  if (!written) return std::unexpected(JpegError::failed);
  return writer.output().length();
}

}  // namespace vesko
