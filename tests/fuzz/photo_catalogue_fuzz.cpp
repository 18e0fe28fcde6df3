// Catalogues of photo libraries: any content gives an answer or an error, and nothing is written.
#include <cstdint>
#include <cstdlib>

#include "platform/linux/photos/linux_photo_library.h"
#include "support/temporary_directory.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace vesko;
  static const support::TemporaryDirectory package;
  const auto catalogue = package / "database/Photos.sqlite";
  const std::string content(reinterpret_cast<const char*>(data), size);
  support::writeFile(catalogue, content);
  support::writeFile(package / "originals/0/a.jpg", "a");

  LinuxPhotoLibrary library([] { return package.path(); });
  std::vector<std::string> identifiers;
  (void)library.forEachIdentifier(
      [&](std::string_view identifier) { identifiers.emplace_back(identifier); });
  if (identifiers.size() > 8) identifiers.resize(8);
  for (const std::string& identifier : identifiers) {
    if (!identifier.ends_with("/L0/001")) std::abort();
    const auto asset = library.firstAsset(std::span(&identifier, 1));
    if (!asset || !*asset) continue;
    const auto resources = library.resources(**asset);
    if (!resources) continue;
    for (const PhotoResource& resource : *resources) {
      const auto file = library.bytes(resource, 100);
      // There is nothing else below originals/ that a name could lead to.
      if (file && (!*file || (*file)->bytes.size() != 1)) std::abort();
    }
  }
  if (support::contentOf(catalogue) != content) std::abort();
  std::size_t files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(catalogue.parent_path()))
    files += entry.exists() ? 1 : 0;
  if (files != 1) std::abort();
  return 0;
}
