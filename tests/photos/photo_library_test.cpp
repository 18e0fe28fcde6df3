// Photos library packages in every condition that they may be found in.
#include "photos/photo_package.h"

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <map>

#include "platform/linux/photos/linux_photo_library.h"

namespace vesko {
namespace {

using namespace test;

class PhotoLibraryTest : public testing::Test {
 protected:
  PhotoLibrary::Result<std::optional<PhotoAsset>> asset(const std::string& identifier) {
    return library_.firstAsset(std::span(&identifier, 1));
  }
  std::string problem() {
    const auto usable = library_.check();
    return usable ? "" : usable.error().message;
  }
  /// The content or the error of the asset's first resource.
  std::string fetched(const std::string& identifier, std::size_t maxBytes = 100) {
    const auto resources = library_.resources({identifier, PhotoMedia::image, {}});
    if (!resources) return resources.error().message;
    if (resources->empty()) return "no resource";
    const auto file = library_.bytes(resources->front(), maxBytes);
    if (!file) return file.error().message;
    if (!*file) return "too long";
    return {reinterpret_cast<const char*>((*file)->bytes.data()), (*file)->bytes.size()};
  }
  /// Every file of the package with its content.
  std::map<std::string, std::string> inventory() const {
    std::map<std::string, std::string> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(package_.path()))
      files[entry.path()] = entry.is_regular_file() ? support::contentOf(entry.path()) : "";
    return files;
  }

  TestPackage package_;
  LinuxPhotoLibrary library_{[this] { return package_.path(); }};
};

TEST_F(PhotoLibraryTest, KnowsBothSchemas) {
  for (const char* table : {"ZASSET", "ZGENERICASSET"}) {
    SCOPED_TRACE(table);
    std::filesystem::remove_all(package_.path());
    package_.tables(table);
    package_.asset(1, "'AB-1','A','AB-1.heic',0,4032,3024,'public.heic',0,0", "IMG_1.HEIC", table);
    package_.asset(2, "'AB-2','A','AB-2.mov',1,1920,1080,'com.apple.quicktime-movie',0,0", "",
                   table);
    package_.asset(3, "'AB-3','A','AB-3.jpg',0,1,1,'public.jpeg',1,0", "", table);
    package_.asset(4, "'AB-4','A','AB-4.jpg',0,1,1,'public.jpeg',0,1", "", table);
    package_.asset(5, "'AB-5','A','AB-5.xyz',7,1,1,NULL,NULL,NULL", "", table);
    package_.original("A/AB-1.heic", "the original");

    EXPECT_EQ(problem(), "");
    const auto found = asset("AB-1/L0/001");
    ASSERT_TRUE(found && *found);
    EXPECT_EQ((*found)->media, PhotoMedia::image);
    EXPECT_EQ((*found)->size, (PixelSize{4032, 3024}));
    EXPECT_EQ((*asset("AB-2/L0/001"))->media, PhotoMedia::video);
    EXPECT_EQ((*asset("AB-5/L0/001"))->media, PhotoMedia::unknown);
    for (const char* absent : {"AB-1", "ab-1/L0/001", "AB-3/L0/001", "AB-4/L0/001", "X/L0/001",
                               "AB-1/L0/002", "/L0/001", "' OR 1=1 --/L0/001"})
      EXPECT_EQ(asset(absent).value(), std::nullopt) << absent;
    const std::string both[] = {"X/L0/001", "AB-2/L0/001"};
    EXPECT_EQ((*library_.firstAsset(both))->localIdentifier, "AB-2/L0/001");

    std::string identifiers;
    ASSERT_TRUE(library_.forEachIdentifier(
        [&](std::string_view identifier) { identifiers += std::string(identifier) + " "; }));
    EXPECT_EQ(identifiers, "AB-1/L0/001 AB-2/L0/001 AB-5/L0/001 ");

    const auto resources = library_.resources(**found);
    ASSERT_TRUE(resources && resources->size() == 1);
    EXPECT_EQ(resources->front().kind, PhotoResource::Kind::photo);
    EXPECT_EQ(resources->front().originalFilename, "IMG_1.HEIC");
    EXPECT_EQ(resources->front().typeIdentifier, "public.heic");
    EXPECT_EQ(fetched("AB-1/L0/001"), "the original");
  }
}

TEST_F(PhotoLibraryTest, DoesWithoutColumnsThatOlderLibrariesLack) {
  package_.sql(
      "CREATE TABLE ZASSET(Z_PK INTEGER PRIMARY KEY, ZUUID, ZDIRECTORY, ZFILENAME, ZKIND);"
      "INSERT INTO ZASSET VALUES(1,'AB',NULL,'b.jpg',0)");
  package_.original("b.jpg", "b");
  EXPECT_EQ((*asset("AB/L0/001"))->size, (PixelSize{0, 0}));
  EXPECT_EQ(fetched("AB/L0/001", 1), "b");
  EXPECT_EQ(fetched("AB/L0/001", 0), "too long");
}

TEST_F(PhotoLibraryTest, ARenderStandsInForAMissingOriginal) {
  package_.tables();
  package_.asset(1, "'AB','0','AB.heic',0,1,1,'public.heic',0,0", "IMG.HEIC");
  EXPECT_EQ(fetched("AB/L0/001"), "its file is not on this machine");
  support::writeFile(package_.path() / "resources/renders/A/AB_1_201_a.jpeg", "edited");
  const auto render = library_.resources({"AB/L0/001", PhotoMedia::image, {}});
  ASSERT_TRUE(render && render->size() == 1);
  EXPECT_EQ(render->front().kind, PhotoResource::Kind::fullSizePhoto);
  EXPECT_EQ(fetched("AB/L0/001"), "edited");
  package_.original("0/AB.heic", "original");
  EXPECT_EQ(fetched("AB/L0/001"), "original");
}

TEST_F(PhotoLibraryTest, NoNameLeadsOutOfThePackage) {
  package_.tables();
  support::writeFile(package_.folder / "secret", "secret");
  support::writeFile(package_.path() / "secret", "secret");
  package_.original("plain.jpg", "plain");
  std::filesystem::create_symlink(package_.folder / "secret",
                                  package_.path() / "originals/link.jpg");
  std::filesystem::create_directory_symlink(package_.folder.path(),
                                            package_.path() / "originals/links");
  ASSERT_EQ(::mkfifo((package_.path() / "originals/pipe.jpg").c_str(), 0600), 0);
  package_.original("empty.jpg", "");
  const std::string absolute = (package_.folder / "secret").native();
  const struct {
    std::string directory;
    std::string file;
    const char* outcome;
  } cases[] = {{"", "plain.jpg", "plain"},
               {"..", "secret", "its file cannot be opened: Permission denied"},
               {"../..", "secret", "its file cannot be opened: Permission denied"},
               {"", "../secret", "its file cannot be opened: Permission denied"},
               {"", absolute, "its file cannot be opened: Permission denied"},
               {".", "plain.jpg", "its file cannot be opened: Permission denied"},
               {"", "link.jpg", "its file cannot be opened: Permission denied"},
               {"", "pipe.jpg", "its file cannot be opened: Permission denied"},
               {"", "", "its file cannot be opened: Permission denied"},
               {"links", "secret", "its file cannot be opened: Not a directory"},
               {"", "empty.jpg", "its file is empty"}};
  int key = 0;
  for (const auto& item : cases) {
    SCOPED_TRACE(item.directory + " " + item.file);
    const std::string uuid = "U" + std::to_string(++key);
    package_.asset(
        key, "'" + uuid + "','" + item.directory + "','" + item.file + "',0,1,1,'public.jpeg',0,0");
    EXPECT_EQ(fetched(uuid + "/L0/001"), item.outcome);
  }
}

TEST_F(PhotoLibraryTest, HonoursALogAndWritesNothing) {
  package_.tables();
  const std::filesystem::path elsewhere = package_.folder / "live.sqlite";
  std::filesystem::copy_file(package_.catalogue(), elsewhere);
  sqlite3* live = openDatabase(elsewhere);
  run(live,
      "PRAGMA journal_mode=WAL; PRAGMA wal_autocheckpoint=0;"
      "INSERT INTO ZASSET VALUES(1,'AB','0','a.jpg',0,1,1,'public.jpeg',0,0)");
  // As a program that has not ended leaves it, without the index of the log.
  std::filesystem::copy_file(elsewhere, package_.catalogue(),
                             std::filesystem::copy_options::overwrite_existing);
  std::filesystem::copy_file(elsewhere.native() + "-wal", package_.catalogue().native() + "-wal");
  sqlite3_close(live);
  const auto before = inventory();
  EXPECT_TRUE(asset("AB/L0/001").value());
  EXPECT_EQ(inventory(), before);
  // Without the log the asset is not there yet.
  std::filesystem::remove(package_.catalogue().native() + "-wal");
  EXPECT_EQ(asset("AB/L0/001").value(), std::nullopt);
}

TEST_F(PhotoLibraryTest, ReadsBesideAProgramThatWrites) {
  package_.tables();
  sqlite3* live = openDatabase(package_.catalogue());
  run(live, "PRAGMA journal_mode=WAL");
  for (int i = 1; i <= 50; ++i) {
    const std::string uuid = "U" + std::to_string(i);
    run(live, "INSERT INTO ZASSET VALUES(" + std::to_string(i) + ",'" + uuid +
                  "','0','a.jpg',0,1,1,'public.jpeg',0,0)");
    if (i % 10 == 0) run(live, "PRAGMA wal_checkpoint(TRUNCATE)");
    EXPECT_TRUE(asset(uuid + "/L0/001").value()) << uuid;
  }
  sqlite3_close(live);
}

TEST_F(PhotoLibraryTest, SaysThatACatalogueIsLocked) {
  package_.tables();
  // Another process: the locks of one's own do not count.
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  const pid_t holder = ::fork();
  if (holder == 0) {
    run(openDatabase(package_.catalogue()), "BEGIN EXCLUSIVE");
    if (::write(ready[1], "x", 1) != 1) ::_exit(1);
    for (;;) ::pause();
  }
  char byte = 0;
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);
  EXPECT_EQ(problem(), "The Photos library is in use by another application");
  ::kill(holder, SIGKILL);
  ::waitpid(holder, nullptr, 0);
  ::close(ready[0]);
  ::close(ready[1]);
  EXPECT_EQ(problem(), "");
}

TEST_F(PhotoLibraryTest, SaysThatAChangeWasNotFinished) {
  package_.tables();
  const std::filesystem::path elsewhere = package_.folder / "live.sqlite";
  std::filesystem::copy_file(package_.catalogue(), elsewhere);
  sqlite3* live = openDatabase(elsewhere);
  run(live,
      "PRAGMA journal_mode=DELETE; BEGIN;"
      "INSERT INTO ZASSET VALUES(1,'AB','0','a.jpg',0,1,1,'public.jpeg',0,0)");
  ASSERT_EQ(sqlite3_db_cacheflush(live), SQLITE_OK);
  std::filesystem::copy_file(elsewhere, package_.catalogue(),
                             std::filesystem::copy_options::overwrite_existing);
  std::filesystem::copy_file(elsewhere.native() + "-journal",
                             package_.catalogue().native() + "-journal");
  sqlite3_close(live);
  const auto before = inventory();
  EXPECT_EQ(problem(),
            "The Photos library was left in the middle of a change; open it in its own application "
            "first");
  EXPECT_EQ(inventory(), before);
}

TEST_F(PhotoLibraryTest, SaysWhatIsWrong) {
  EXPECT_EQ(problem(), "There is no Photos library");
  std::filesystem::create_directories(package_.path());
  EXPECT_EQ(problem(), "The Photos library has no catalogue");
  support::writeFile(package_.path() / "database/photos.db", "");
  EXPECT_EQ(problem(), "The Photos library has an older format that is not supported");

  package_.tables();
  const std::string whole = support::contentOf(package_.catalogue());
  const std::string unknown = "The Photos library's catalogue has an unknown schema";
  const std::string damaged = "The Photos library's catalogue is damaged";
  const std::pair<std::string, std::string> contents[] = {
      {"", unknown},
      {std::string(5000, 'x'), damaged},
      {whole.substr(0, whole.size() / 2), damaged},
      {whole.substr(0, 100) + std::string(whole.size() - 100, '\xFF'), damaged},
      {whole, ""}};
  for (const auto& [content, expected] : contents) {
    support::writeFile(package_.catalogue(), content);
    EXPECT_EQ(problem(), expected) << content.size();
  }
  for (const char* schema : {"CREATE TABLE ZOTHER(a)", "CREATE TABLE ZASSET(ZUUID, ZFILENAME)",
                             "CREATE TABLE T(Z_PK, ZUUID, ZDIRECTORY, ZFILENAME, ZKIND);"
                             "CREATE VIEW ZASSET AS SELECT * FROM T"}) {
    std::filesystem::remove(package_.catalogue());
    package_.sql(schema);
    EXPECT_EQ(problem(), unknown) << schema;
  }
  std::filesystem::remove(package_.catalogue());
  std::filesystem::create_symlink("/etc/passwd", package_.catalogue());
  EXPECT_EQ(problem(), "The Photos library's catalogue cannot be opened");
}

}  // namespace
}  // namespace vesko
