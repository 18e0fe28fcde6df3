// A picture on its whole way: from a library in the user's home to a file of the command line.
#include <gtest/gtest.h>

#include "companion_process.h"
#include "photos/photo_package.h"
#include "photos/pictures.h"
#include "platform/linux/consent_store.h"

namespace vesko::test {
namespace {

TEST(CompanionPhotos, ExportsAPicture) {
  Installation installation(Installation::Helper::real);
  const auto companion = installation.start();
  ASSERT_TRUE(installation.waitForLog("control server announced on port")) << installation.log();
  const auto file = installation.home() / "picture.jpg";
  struct Result {
    int exit;
    std::string out;
    std::string err;
  };
  const auto photo = [&](std::string uuid) {
    Process process({installation.veskoctl(), "photo", std::move(uuid), file},
                    {{"HOME", installation.home()}}, installation.home() / "veskoctl");
    const auto exit = process.waitForExit();
    return Result{exit.value_or(-1), process.out(), process.err()};
  };
  EXPECT_NE(photo("ABC").err.find("Photos access is not granted"), std::string::npos);
  ConsentStore consents(installation.consents());
  ASSERT_TRUE(consents.set(Consent::photos, ConsentState::granted));
  EXPECT_NE(photo("ABC").err.find("There is no Photos library"), std::string::npos);

  TestPackage package;
  package.tables();
  package.asset(1, "'ABC','A','ABC.heic',0,60,80,'public.heic',0,0", "IMG_1.HEIC");
  package.original("A/ABC.heic", heicFile(quarteredPicture({80, 60}), {.orientation = 6}));
  std::filesystem::create_directories(installation.home() / "Pictures");
  std::filesystem::rename(package.path(),
                          installation.home() / "Pictures/Photos Library.photoslibrary");
  const Result exported = photo("abc");
  EXPECT_EQ(exported.exit, 0) << exported.err;
  EXPECT_NE(exported.out.find("image/jpeg, 60x80"), std::string::npos) << exported.out;
  EXPECT_TRUE(support::contentOf(file).starts_with("\xFF\xD8\xFF"));
  EXPECT_EQ(support::modeOf(file), 0600U);
  EXPECT_NE(photo("DEF").err.find("not accessible"), std::string::npos);
  EXPECT_TRUE(companion->running());
}

}  // namespace
}  // namespace vesko::test
