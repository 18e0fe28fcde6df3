#include "platform/linux/photos/linux_photo_library.h"

#include <sys/stat.h>

#include <array>

#include "platform/linux/photos/package_files.h"
#include "platform/linux/photos/photo_catalogue.h"

namespace vesko {
namespace {

/// What every identifier here ends in: the asset itself, in its only version.
constexpr std::string_view identifierEnd = "/L0/001";

constexpr int maxAttempts = 3;

std::unexpected<PhotoLibraryError> problem(std::string message) {
  return std::unexpected(PhotoLibraryError{std::move(message)});
}

PhotoLibrary::Result<PackageFolder> openPackage(const LinuxPhotoLibrary::Location& location) {
  const auto path = location();
  if (!path) return problem("There is no Photos library");
  auto package = PackageFolder::open(*path);
  if (package) return std::move(*package);
  const bool absent = package.error() == std::errc::no_such_file_or_directory ||
                      package.error() == std::errc::not_a_directory;
  return problem(absent ? "There is no Photos library"
                        : "The Photos library cannot be opened: " + package.error().message());
}

/// Changes whenever another program writes to the catalogue.
struct CatalogueState {
  struct File {
    ino_t inode = 0;
    off_t size = 0;
    timespec changed{};
    bool operator==(const File& other) const {
      return inode == other.inode && size == other.size && changed.tv_sec == other.changed.tv_sec &&
             changed.tv_nsec == other.changed.tv_nsec;
    }
  };
  std::array<File, 2> files;
  bool operator==(const CatalogueState&) const = default;

  static CatalogueState of(const PackageFolder& package) {
    CatalogueState state;
    std::size_t i = 0;
    for (const char* name : {"database/Photos.sqlite", "database/Photos.sqlite-wal"}) {
      const auto file = package.file(name);
      struct stat info{};
      if (file && ::fstat(file->get(), &info) == 0)
        state.files[i] = {info.st_ino, info.st_size, info.st_mtim};
      ++i;
    }
    return state;
  }
};

/// The answer of `ask`, which may be asked more than once.
template <class Ask>
auto askCatalogue(const PackageFolder& package, const Ask& ask)
    -> decltype(ask(std::declval<PhotoCatalogue&>())) {
  for (int attempt = 0; attempt < maxAttempts; ++attempt) {
    const auto before = CatalogueState::of(package);
    auto catalogue = PhotoCatalogue::open(package);
    auto answer = catalogue ? ask(*catalogue) : std::unexpected(catalogue.error());
    if (CatalogueState::of(package) == before) return answer;
  }
  return problem("The Photos library is being changed by another application");
}

bool exists(const PackageFolder& package, const std::string& path) {
  return package.file(path).has_value();
}

/// The edited picture, if there is one.
std::optional<PhotoResource> renderOf(const PackageFolder& package, const std::string& uuid) {
  static constexpr std::array<std::pair<std::string_view, std::string_view>, 3> types = {
      {{"jpeg", "public.jpeg"}, {"heic", "public.heic"}, {"png", "public.png"}}};
  for (const auto& [extension, type] : types) {
    const std::string path = "resources/renders/" + uuid.substr(0, 1) + "/" + uuid + "_1_201_a." +
                             std::string(extension);
    if (exists(package, path))
      return PhotoResource{.kind = PhotoResource::Kind::fullSizePhoto,
                           .originalFilename = "FullSizeRender." + std::string(extension),
                           .typeIdentifier = std::string(type),
                           .location = path};
  }
  return std::nullopt;
}

std::string uuidOf(std::string_view localIdentifier) {
  return localIdentifier.ends_with(identifierEnd)
             ? std::string(localIdentifier.substr(0, localIdentifier.size() - identifierEnd.size()))
             : std::string();
}

}  // namespace

std::expected<void, PhotoLibraryError> LinuxPhotoLibrary::check() {
  const auto package = openPackage(location_);
  if (!package) return std::unexpected(package.error());
  return askCatalogue(*package, [](PhotoCatalogue&) { return Result<void>(); });
}

std::expected<std::optional<PhotoAsset>, PhotoLibraryError> LinuxPhotoLibrary::firstAsset(
    std::span<const std::string> localIdentifiers) {
  using Answer = Result<std::optional<PhotoAsset>>;
  const auto package = openPackage(location_);
  if (!package) return std::unexpected(package.error());
  return askCatalogue(*package, [&](PhotoCatalogue& catalogue) -> Answer {
    for (const std::string& identifier : localIdentifiers) {
      const std::string uuid = uuidOf(identifier);
      if (uuid.empty()) continue;
      const auto found = catalogue.asset(uuid);
      if (!found) return std::unexpected(found.error());
      if (*found) return PhotoAsset{identifier, (*found)->media, (*found)->size};
    }
    return std::nullopt;
  });
}

std::expected<void, PhotoLibraryError> LinuxPhotoLibrary::forEachIdentifier(
    const std::function<void(std::string_view)>& visit) {
  const auto package = openPackage(location_);
  if (!package) return std::unexpected(package.error());
  // Kept until it is known to be whole.
  std::vector<std::string> uuids;
  auto read = askCatalogue(*package, [&uuids](PhotoCatalogue& catalogue) {
    uuids.clear();
    return catalogue.forEachUuid([&uuids](std::string_view uuid) { uuids.emplace_back(uuid); });
  });
  if (!read) return read;
  for (std::string& uuid : uuids) visit(uuid += identifierEnd);
  return {};
}

std::expected<std::vector<PhotoResource>, PhotoLibraryError> LinuxPhotoLibrary::resources(
    const PhotoAsset& asset) {
  const auto package = openPackage(location_);
  if (!package) return std::unexpected(package.error());
  const auto found = askCatalogue(*package, [&](PhotoCatalogue& catalogue) {
    return catalogue.asset(uuidOf(asset.localIdentifier));
  });
  if (!found) return std::unexpected(found.error());
  std::vector<PhotoResource> resources;
  if (!*found) return resources;
  const CatalogueAsset& entry = **found;
  PhotoResource photo{
      .kind = PhotoResource::Kind::photo,
      .originalFilename = entry.originalFilename.empty() ? entry.filename : entry.originalFilename,
      .typeIdentifier = entry.typeIdentifier,
      .location =
          "originals/" + (entry.directory.empty() ? "" : entry.directory + "/") + entry.filename};
  auto render = renderOf(*package, entry.uuid);
  // One that is missing is still named while nothing takes its place, so that fetching it says why.
  if (!render || exists(*package, photo.location)) resources.push_back(std::move(photo));
  if (render) resources.push_back(std::move(*render));
  return resources;
}

std::expected<std::optional<PhotoBytes>, PhotoLibraryError> LinuxPhotoLibrary::bytes(
    const PhotoResource& resource, std::size_t maxBytes) {
  const auto package = openPackage(location_);
  if (!package) return std::unexpected(package.error());
  const auto file = package->file(resource.location);
  if (!file)
    return problem(file.error() == std::errc::no_such_file_or_directory
                       ? "its file is not on this machine"
                       : "its file cannot be opened: " + file.error().message());
  auto bytes = readWhole(*file, maxBytes);
  if (!bytes && bytes.error() == std::errc::file_too_large) return std::nullopt;
  if (!bytes) return problem("its file cannot be read: " + bytes.error().message());
  if (bytes->bytes.empty()) return problem("its file is empty");
  return std::move(*bytes);
}

}  // namespace vesko
