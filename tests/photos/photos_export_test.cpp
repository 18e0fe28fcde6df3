// The export with a real codec over a library in memory, and its routes.
#include "tools/photos_export.h"

#include <gtest/gtest.h>

#include <map>

#include "base/base64.h"
#include "control_server/tool_routes.h"
#include "photos/pictures.h"
#include "platform/linux/pictures/linux_picture_codec.h"

namespace vesko {
namespace {

using namespace test;
using Kind = ExportError::Kind;

/// Assets and files as the test puts them.
class MemoryLibrary : public PhotoLibrary {
 public:
  struct Entry {
    PhotoAsset asset;
    std::vector<PhotoResource> resources;
  };
  std::vector<Entry> entries;
  std::map<std::string, std::string, std::less<>> files;
  std::vector<std::size_t> asked;  ///< how many bytes at most, file after file
  bool endless = false;            ///< every file is too long
  std::optional<std::string> problem;
  int enumerations = 0;

  void add(const std::string& identifier, const std::string& name, const std::string& file,
           PixelSize size = {96, 64}, const std::string& type = {}) {
    files[identifier] = file;
    entries.push_back({{identifier, PhotoMedia::image, size},
                       {{PhotoResource::Kind::photo, name, type, identifier}}});
  }

  Result<void> check() override { return whether(); }
  Result<std::optional<PhotoAsset>> firstAsset(std::span<const std::string> identifiers) override {
    if (problem) return std::unexpected(PhotoLibraryError{*problem});
    for (const std::string& identifier : identifiers) {
      for (const Entry& entry : entries) {
        if (entry.asset.localIdentifier == identifier) return entry.asset;
      }
    }
    return std::nullopt;
  }
  Result<void> forEachIdentifier(const std::function<void(std::string_view)>& visit) override {
    ++enumerations;
    for (const Entry& entry : entries) visit(entry.asset.localIdentifier);
    return whether();
  }
  Result<std::vector<PhotoResource>> resources(const PhotoAsset& asset) override {
    for (const Entry& entry : entries) {
      if (entry.asset.localIdentifier == asset.localIdentifier) return entry.resources;
    }
    return {};
  }
  Result<std::optional<PhotoBytes>> bytes(const PhotoResource& resource,
                                          std::size_t maxBytes) override {
    asked.push_back(maxBytes);
    const auto file = files.find(resource.location);
    if (file == files.end()) return std::unexpected(PhotoLibraryError{"it is far away"});
    if (endless || file->second.size() > maxBytes) return std::nullopt;
    return PhotoBytes{bytesOf(file->second), nullptr};
  }

 private:
  Result<void> whether() const {
    return problem ? std::unexpected(PhotoLibraryError{*problem}) : Result<void>();
  }
};

class MemoryPermissions : public PermissionProbes {
 public:
  PhotosPermission permission = PhotosPermission::full;

  bool accessibilityTrusted() override { return false; }
  bool screenCaptureAllowed() override { return false; }
  PhotosPermission photos() override { return permission; }
  AutomationStatus automation(AutomationTarget) override { return {}; }
};

class PhotosExportTest : public testing::Test {
 protected:
  std::expected<ExportResponse, ExportError> exported(
      const std::string& uuid, std::optional<std::int64_t> maxBytes = std::nullopt) {
    return service_.exportPhoto({uuid, maxBytes});
  }
  static std::string fileOf(const ExportResponse& response) {
    return decodeBase64(response.dataBase64).value_or("");
  }
  static Image imageOf(const ExportResponse& response) {
    const std::string file = fileOf(response);
    const auto image = LinuxPictureCodec().decode(bytesOf(file));
    EXPECT_TRUE(image);
    return image.value_or(Image{});
  }

  MemoryLibrary library_;
  LinuxPictureCodec codec_;
  MemoryPermissions permissions_;
  PhotosExportService service_{library_, codec_, permissions_};
};

TEST_F(PhotosExportTest, ChecksInOrder) {
  library_.problem = "there is no library";
  permissions_.permission = PhotosPermission::denied;
  const auto refused = [this](const std::string& uuid, std::int64_t maxBytes) {
    const auto answer = exported(uuid, maxBytes);
    return answer ? "" : answer.error().message;
  };
  EXPECT_EQ(refused(" \t\n", 0), "uuid is required");
  EXPECT_EQ(refused("A", 0), "maxBytes must be a positive integer");
  EXPECT_EQ(refused("A", -5), "maxBytes must be a positive integer");
  EXPECT_EQ(refused("A", 1), "Photos access is not granted");
  permissions_.permission = PhotosPermission::limited;
  EXPECT_EQ(refused("A", 1), "there is no library");
  library_.problem.reset();
  EXPECT_EQ(refused("A", 1), "The requested Photos asset is not accessible");

  library_.add("V/L0/001", "v.mov", "");
  library_.entries[0].asset.media = PhotoMedia::video;
  library_.add("U/L0/001", "u.xyz", "");
  library_.entries[1].asset.media = PhotoMedia::unknown;
  library_.add("N/L0/001", "n.jpg", "");
  library_.entries[2].resources.clear();
  library_.add("F/L0/001", "f.jpg", "");
  library_.files.clear();
  EXPECT_EQ(refused("V", 1), "Videos are not supported in Photos v1");
  EXPECT_EQ(refused("U", 1), "The requested Photos asset is not accessible");
  EXPECT_EQ(refused("N", 1), "The original Photos resource is unavailable");
  EXPECT_EQ(refused("F", 1), "Could not fetch the original Photos asset: it is far away");
}

TEST_F(PhotosExportTest, FindsAnIdentifierInAnyForm) {
  library_.add("AB-1/L0/001", "1.jpg", "1");
  library_.add("AB-2/L0/002", "2.jpg", "2");
  library_.add("AB-2/L0/000", "3.jpg", "3");
  library_.add("ab-2", "4.jpg", "4");
  const std::pair<const char*, const char*> cases[] = {
      {" AB-1\n", "1"},     {"AB-1/L0/001", "1"}, {"ab-1", "1"},  {"Ab-1/l0/001", "1"},
      {"AB-2/L0/002", "2"}, {"ab-2", "4"},        {"AB-2", "4"},  {"AB-2/l0/000", "3"},
      {"AB-1/L0", nullptr}, {"AB", nullptr},      {"/", nullptr}, {"AB-3", nullptr}};
  for (const auto& [uuid, content] : cases) {
    const auto answer = exported(uuid);
    EXPECT_EQ(answer ? fileOf(*answer) : answer.error().message,
              content ? content : "The requested Photos asset is not accessible")
        << uuid;
  }
  // Of one prefix the first asset counts, and the index is made once.
  library_.entries.pop_back();
  EXPECT_EQ(library_.enumerations, 1);
  MemoryLibrary others;
  others.add("AB-2/L0/002", "2.jpg", "2");
  others.add("AB-2/L0/000", "3.jpg", "3");
  AssetIdentifierIndex index;
  EXPECT_EQ(index.find(others, "ab-2").value(), "AB-2/L0/002");
}

TEST_F(PhotosExportTest, HandsOverWhatFits) {
  const struct {
    const char* name;
    const char* type;
    const char* mime;
    const char* filename;
  } cases[] = {{"a.JPG", "public.heic", "image/jpeg", "a.JPG"},
               {"folder/b.jpeg", "", "image/jpeg", "b.jpeg"},
               {"d.gif", "", "image/gif", "d.gif"},
               {"e.webp", "", "image/webp", "e.webp"},
               {"", "Public.JPEG", "image/jpeg", "X.jpg"},
               {"noextension", "com.compuserve.gif", "image/gif", "noextension"},
               {"f.odd", "public.webp", "image/webp", "f.odd"}};
  for (const auto& item : cases) {
    SCOPED_TRACE(item.name);
    library_.entries.clear();
    // Not looked into.
    library_.add("X/L0/001", item.name, "anything", {0, 3024}, item.type);
    const auto answer = exported("X", 8);
    ASSERT_TRUE(answer);
    EXPECT_EQ(fileOf(*answer), "anything");
    EXPECT_EQ(answer->mimeType, item.mime);
    EXPECT_EQ(answer->filename, item.filename);
    EXPECT_EQ(answer->width, 1);
    EXPECT_EQ(answer->height, 3024);
    EXPECT_FALSE(answer->transcoded);
    // One byte more than the budget, and it would have to be a picture.
    library_.asked.clear();
    EXPECT_EQ(exported("X", 7).error().kind, Kind::imageEncodingFailed);
    EXPECT_EQ(library_.asked, (std::vector<std::size_t>{7, PhotosExportService::maxFileBytes}));
  }
  library_.entries.clear();
  library_.add("X/L0/001", "x.heic", "anything", {}, "public.heic");
  EXPECT_EQ(exported("X").error().kind, Kind::imageEncodingFailed);
  library_.endless = true;
  EXPECT_EQ(exported("X").error().message,
            "Could not fetch the original Photos asset: its file is too large");
  library_.endless = false;
  library_.add("Y/L0/001", "y.jpg", std::string(4'500'001, 'x'));
  EXPECT_EQ(exported("Y", 10'000'000).error().kind, Kind::imageEncodingFailed);
  library_.files["Y/L0/001"].pop_back();
  EXPECT_TRUE(exported("Y", 10'000'000));
}

TEST_F(PhotosExportTest, ReducesStepByStep) {
  // Noise, so that every step counts, and wide, so that rounding does.
  const Image image = noisyPicture({2500, 333});
  library_.add("N/L0/001", "dir/n.o.ise.tiff",
               converted("-compress LZW", "a.tiff", pngFile(image)));
  const auto full = exported("N");
  ASSERT_TRUE(full);
  EXPECT_EQ(full->filename, "n.o.ise.jpg");
  EXPECT_EQ(full->mimeType, "image/jpeg");
  EXPECT_TRUE(full->transcoded);
  // Each budget is one byte below what the step before took.
  const PixelSize expected[] = {{2500, 333}, {2500, 333}, {2500, 333}, {2048, 273}, {1600, 213}};
  auto budget = static_cast<std::int64_t>(PhotosExportService::maxMaxBytes);
  for (const PixelSize& size : expected) {
    const auto answer = exported("N", budget);
    ASSERT_TRUE(answer) << budget << ": " << answer.error().message;
    EXPECT_EQ((PixelSize{static_cast<int>(answer->width), static_cast<int>(answer->height)}), size);
    EXPECT_EQ(imageOf(*answer).size, size);
    const auto length = static_cast<std::int64_t>(fileOf(*answer).size());
    EXPECT_LE(length, budget);
    budget = length - 1;
  }
  EXPECT_EQ(exported("N", budget).error().kind, Kind::assetTooLarge);

  library_.add("S/L0/001", "", converted("", "a.heic", pngFile(noisyPicture({1000, 200}))));
  EXPECT_EQ(exported("S")->filename, "photo.jpg");
  EXPECT_EQ(exported("S", 1000).error().kind, Kind::assetTooLarge);
}

TEST_F(PhotosExportTest, DrawsOverWhite) {
  const Image half =
      painted({2000, 100}, false, [](int x, int) { return x < 1000 ? 0U : 0x80400000U; });
  library_.add("T/L0/001", "t.png", pngFile(half) + std::string(20'000, 'x'));
  // At full size, and reduced.
  for (const std::int64_t budget : {20'000, 2'900}) {
    const auto answer = exported("T", budget);
    ASSERT_TRUE(answer) << budget;
    const Image image = imageOf(*answer);
    EXPECT_EQ(image.size.width, budget == 20'000 ? 2000 : 1600);
    for (const auto& [x, red, others] :
         {std::tuple{200, 255, 255}, {image.size.width - 200, 191, 127}}) {
      const std::uint32_t pixel = image.row(40)[x];
      EXPECT_NEAR(static_cast<int>(pixel >> 16 & 255), red, 4);
      EXPECT_NEAR(static_cast<int>(pixel >> 8 & 255), others, 4);
    }
  }
}

TEST_F(PhotosExportTest, GivesUpWhenCancelled) {
  /// Cancels in the middle of the first file.
  class CancellingCodec : public LinuxPictureCodec {
   public:
    PhotosExportService* service = nullptr;
    int rowsAsked = 0;

    std::expected<std::size_t, JpegError> encodeJpeg(PixelSize size, double quality,
                                                     const RowSource& rows,
                                                     std::span<std::byte> out) override {
      const auto source = [&](int y) {
        if (++rowsAsked == 2) service->cancel();
        return rows(y);
      };
      return LinuxPictureCodec::encodeJpeg(size, quality, source, out);
    }
  };
  CancellingCodec codec;
  PhotosExportService service(library_, codec, permissions_);
  codec.service = &service;
  library_.add("N/L0/001", "n.tiff",
               converted("-compress LZW", "a.tiff", pngFile(noisyPicture({600, 2700}))));
  for (int i = 0; i < 2; ++i)
    EXPECT_EQ(service.exportPhoto({"N", {}}).error().kind, Kind::imageEncodingFailed);
  EXPECT_EQ(codec.rowsAsked, 2);
  library_.add("P/L0/001", "p.jpg", "anything");
  EXPECT_TRUE(service.exportPhoto({"P", {}}));
}

TEST_F(PhotosExportTest, AnswersByRoutes) {
  const std::vector<Route> routes = photosRoutes(service_);
  const auto ask = [&](std::string_view path, std::string body) {
    for (const Route& route : routes) {
      if (route.path != path) continue;
      HTTPRequest request;
      request.body = std::move(body);
      const HTTPResponse response = route.handler(request);
      return std::to_string(response.status) + " " + response.body;
    }
    return std::string();
  };
  library_.add("A/L0/001", "a.png", "abc", {3, 4});
  library_.add("B/L0/001", "b.heic", "abc");
  library_.add("V/L0/001", "v.mov", "");
  library_.entries.back().asset.media = PhotoMedia::video;
  EXPECT_EQ(ask("/photos/status", ""), R"(200 {"permission":"full","libraryAvailable":true})");
  EXPECT_EQ(ask("/photos/export", R"({"uuid":"A"})"),
            R"(200 {"dataBase64":"YWJj","mimeType":"image/png","filename":"a.png","width":3,)"
            R"("height":4,"transcoded":false})");
  for (const char* body : {"", "{}", R"({"uuid":1})", R"({"uuid":"A","maxBytes":"1"})",
                           R"({"uuid":"A","maxBytes":1.5})", R"({"uuid":"A","maxBytes":NaN})"})
    EXPECT_EQ(
        ask("/photos/export", body),
        R"(400 {"error":"photos_invalid_request","message":"invalid Photos export request"})");
  const std::pair<const char*, const char*> failures[] = {
      {R"({"uuid":""})", R"(400 {"error":"photos_invalid_request","message":"uuid is required"})"},
      {R"({"uuid":"X"})", "422 {\"error\":\"photos_asset_not_found\""},
      {R"({"uuid":"V"})", "422 {\"error\":\"photos_video_unsupported\""},
      {R"({"uuid":"B"})",
       R"(500 {"error":"photos_export_unavailable","message":"The Photos asset could not be encoded as JPEG"})"}};
  for (const auto& [body, expected] : failures)
    EXPECT_TRUE(ask("/photos/export", body).starts_with(expected)) << body;
  library_.problem = "gone";
  EXPECT_EQ(ask("/photos/export", R"({"uuid":"A"})"),
            R"(500 {"error":"photos_export_unavailable","message":"gone"})");
  EXPECT_EQ(ask("/photos/status", ""),
            R"(200 {"permission":"full","libraryAvailable":false,"problem":"gone"})");
  permissions_.permission = PhotosPermission::notDetermined;
  EXPECT_TRUE(ask("/photos/export", R"({"uuid":"A"})")
                  .starts_with("403 {\"error\":\"photos_permission_denied\""));
}

}  // namespace
}  // namespace vesko
