# Picture files and the photo library.
pkg_check_modules(PICTURES REQUIRED IMPORTED_TARGET
  libjpeg spng libwebp libwebpdemux libheif libde265 libtiff-4 lcms2)
find_package(GIF REQUIRED)

vesko_library(vesko_linux_pictures
  SOURCES
    pictures/color_transform.cpp
    pictures/decode_gif.cpp
    pictures/decode_heif.cpp
    pictures/decode_jpeg.cpp
    pictures/decode_png.cpp
    pictures/decode_tiff.cpp
    pictures/decode_webp.cpp
    pictures/exif_orientation.cpp
    pictures/hevc_decoder.cpp
    pictures/hevc_sequence.cpp
    pictures/jpeg_encoder.cpp
    pictures/linux_picture_codec.cpp
    pictures/picture_raster.cpp
  LIBS vesko_base PkgConfig::PICTURES GIF::GIF)

pkg_check_modules(SQLITE REQUIRED IMPORTED_TARGET sqlite3)

vesko_library(vesko_linux_photo_library
  SOURCES
    photos/linux_photo_library.cpp
    photos/package_files.cpp
    photos/photo_catalogue.cpp
    photos/read_only_vfs.cpp
  LIBS vesko_base PkgConfig::SQLITE)

add_library(VeskoPhotos MODULE photos/photos_module_entry.cpp)
target_link_libraries(VeskoPhotos PRIVATE vesko_linux_photo_library vesko_linux_pictures)
set_target_properties(VeskoPhotos PROPERTIES PREFIX "")

vesko_library(vesko_linux_photos
  SOURCES photos/photos_module.cpp
  LIBS vesko_base ${CMAKE_DL_LIBS})
add_dependencies(vesko_linux_photos VeskoPhotos)
