// One export of a picture file, as a process of its own, so that its peak of memory is the
// export's: photos_bench FILE MAX_BYTES prints the size in pixels, the length and the milliseconds.

#include <fmt/format.h>

#include <chrono>
#include <cstdlib>

#include "base/file.h"
#include "granted.h"
#include "platform/linux/pictures/linux_picture_codec.h"
#include "tools/photos_export.h"

namespace vesko {
namespace {

/// A library of one file.
class OneFile : public PhotoLibrary {
 public:
  explicit OneFile(const char* path) : path_(path) {}

  Result<void> check() override { return {}; }
  Result<std::optional<PhotoAsset>> firstAsset(std::span<const std::string>) override {
    return PhotoAsset{"file/L0/001", PhotoMedia::image, {}};
  }
  Result<void> forEachIdentifier(const std::function<void(std::string_view)>&) override {
    return {};
  }
  Result<std::vector<PhotoResource>> resources(const PhotoAsset&) override {
    return std::vector<PhotoResource>{
        {PhotoResource::Kind::photo, path_.filename().native(), "", path_.native()}};
  }
  Result<std::optional<PhotoBytes>> bytes(const PhotoResource&, std::size_t maxBytes) override {
    std::error_code error;
    if (std::filesystem::file_size(path_, error) > maxBytes && !error) return std::nullopt;
    auto content = readFile(path_, maxBytes);
    if (!content) return std::unexpected(PhotoLibraryError{content.error().message()});
    const auto held = std::make_shared<std::string>(std::move(*content));
    return PhotoBytes{std::as_bytes(std::span(*held)), held};
  }

 private:
  std::filesystem::path path_;
};

int run(const char* file, std::int64_t maxBytes) {
  OneFile library(file);
  LinuxPictureCodec codec;
  bench::Granted permissions;
  PhotosExportService service(library, codec, permissions);
  const auto begin = std::chrono::steady_clock::now();
  const auto answer = service.exportPhoto({"file", maxBytes});
  const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - begin;
  if (!answer) {
    fmt::print(stderr, "photos_bench: {}\n", answer.error().message);
    return 1;
  }
  fmt::print("{} {} {} {:.1f}\n", answer->width, answer->height, answer->dataBase64.size() / 4 * 3,
             took.count());
  return 0;
}

}  // namespace
}  // namespace vesko

int main(int count, char** words) {
  if (count != 3) {
    fmt::print(stderr, "usage: photos_bench FILE MAX_BYTES\n");
    return 2;
  }
  return vesko::run(words[1], std::strtoll(words[2], nullptr, 10));
}
