// Contains the errors of libjpeg, which end in a jump. One thread.
#pragma once

#include <csetjmp>
#include <cstddef>
#include <cstdio>

// After <cstdio>: it uses FILE without declaring it.
#include <jerror.h>
#include <jpeglib.h>

namespace vesko {

class JpegGuard {
 public:
  /// For the `err` of a libjpeg structure that does not outlive the guard.
  jpeg_error_mgr* handlers() {
    jpeg_std_error(&errors_.base);
    errors_.base.error_exit = [](j_common_ptr file) { leave(file); };
    errors_.base.output_message = [](j_common_ptr) {};
    errors_.base.emit_message = [](j_common_ptr file, int level) {
      if (level < 0 && meansLostPixels(file->err->msg_code)) leave(file);
    };
    return &errors_.base;
  }

  /// False when libjpeg gave up. `calls` holds calls of libjpeg and nothing that a jump would leave
  /// undone: no object with a destructor.
  template <class Calls>
  [[nodiscard]] bool run(const Calls& calls) {
    if (setjmp(errors_.out) != 0) return false;
    calls();
    return true;
  }

 private:
  struct Errors {
    jpeg_error_mgr base;
    std::jmp_buf out;
  };

  [[noreturn]] static void leave(j_common_ptr file) {
    // `base` is its first member, so that this is the whole.
    std::longjmp(reinterpret_cast<Errors*>(file->err)->out, 1);
  }

  /// libjpeg itself would go on and leave the rest of the picture grey.
  static bool meansLostPixels(int code) {
    return code == JWRN_JPEG_EOF || code == JWRN_HIT_MARKER || code == JWRN_HUFF_BAD_CODE;
  }

  Errors errors_{};
};

}  // namespace vesko
