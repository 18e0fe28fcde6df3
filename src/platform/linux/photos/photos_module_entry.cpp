#include "platform/linux/photos/photos_module.h"
#include "platform/linux/pictures/linux_picture_codec.h"

extern "C" [[gnu::visibility("default")]] void veskoMakePhotosBackEnd(
    const vesko::LinuxPhotoLibrary::Location& location, vesko::PhotosBackEnd& made) {
  made.library = std::make_unique<vesko::LinuxPhotoLibrary>(location);
  made.codec = std::make_unique<vesko::LinuxPictureCodec>();
}
