#include "platform/linux/desktop_entry.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/linux/desktop_entries.h"
#include "support/temporary_directory.h"

namespace vesko {
namespace {

using Arguments = std::vector<std::string>;

TEST(DesktopEntry, Commands) {
  const std::pair<const char*, std::optional<Arguments>> cases[] = {
      {"editor", Arguments{"editor"}},
      {"  editor \t --new  ", Arguments{"editor", "--new"}},
      {"editor %F --x %u", Arguments{"editor", "--x"}},
      {"editor --file=%f %%d", Arguments{"editor", "--file=", "%d"}},
      {"editor --title %c %k", Arguments{"editor", "--title", "A Name", "/x/y.desktop"}},
      {R"("/opt/My Editor/run" "a\\"b" "")", Arguments{"/opt/My Editor/run", "a\"b", ""}},
      {R"(sh -c "echo \\$HOME \\\\ \\`x\\`")", Arguments{"sh", "-c", "echo $HOME \\ `x`"}},
      {R"(one"two three"four)", Arguments{"onetwo threefour"}},
      {R"(editor\sone)", Arguments{"editor", "one"}},
      {R"(editor "open)", std::nullopt},
      {"%f", std::nullopt},
      {R"("" x)", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& [exec, command] : cases) {
    SCOPED_TRACE(exec);
    const auto entry = parseDesktopEntry(
        "[Desktop Entry]\nType=Application\nName=A Name\nExec=" + std::string(exec), {});
    ASSERT_TRUE(entry);
    EXPECT_EQ(commandOf(*entry, "/x/y.desktop"), command);
  }
}

TEST(DesktopEntry, ReadsTheOneGroup) {
  const auto entry = parseDesktopEntry(
      "# comment\nnonsense\nName=Before\n\r\n[Other]\nName=Other\n[Desktop Entry]\r\n"
      "Name = Editor \nName[de]=Textbearbeitung\nName[de_AT]=Schreiberei\nName[fr]=\xC3\x89"
      "diteur\nType=Application\nTerminal=true\nNoDisplay=false\nStartupWMClass=Ed\n"
      "OnlyShowIn=GNOME;KDE;\n[Desktop Action new]\nName=New\nExec=other\n",
      localeSuffixes("de_AT.UTF-8@euro"));
  ASSERT_TRUE(entry);
  EXPECT_EQ(entry->name, "Editor");
  EXPECT_EQ(entry->localizedName, "Schreiberei");
  EXPECT_TRUE(entry->terminal && !entry->noDisplay && entry->exec.empty());
  EXPECT_EQ(entry->startupWmClass, "Ed");
  EXPECT_EQ(entry->onlyShowIn, (Arguments{"GNOME", "KDE"}));

  for (const char* none : {"", "[Desktop Entry]\nType=Link\nName=x\n", "Type=Application\nName=x\n",
                           "[Desktop Entry]\nType=Application\nName=\xFF\n"})
    EXPECT_FALSE(parseDesktopEntry(none, {})) << none;
  EXPECT_EQ(localeSuffixes("sr_RS@latin"), (Arguments{"sr_RS@latin", "sr_RS", "sr@latin", "sr"}));
  EXPECT_EQ(localeSuffixes("C.UTF-8"), Arguments{});
}

class DesktopEntriesTest : public testing::Test {
 protected:
  void write(const std::string& file, const std::string& rest, const char* name = "x") const {
    const auto path = root.path() / file;
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path) << "[Desktop Entry]\nType=Application\nName=" << name << "\n" << rest;
  }
  std::string ids() {
    std::string text;
    const auto catalogue = entries.current();
    for (const auto& each : catalogue->entries())
      text += each.id + (each.listed ? " " : "(unlisted) ");
    return text;
  }

  support::TemporaryDirectory root;
  DesktopEntries entries{
      Environment{{"XDG_DATA_HOME", root.path() / "own"},
                  {"XDG_DATA_DIRS", (root.path() / "system").string() + ":relative:/nowhere"},
                  {"XDG_CURRENT_DESKTOP", "GNOME"},
                  {"PATH", "/bin:/usr/bin"}}};
};

TEST_F(DesktopEntriesTest, TheFirstFolderDecides) {
  write("system/applications/a.desktop", "Exec=sh\n", "system");
  write("own/applications/a.desktop", "Exec=sh\n", "own");
  write("system/applications/hidden.desktop", "Exec=sh\n");
  write("own/applications/hidden.desktop", "Hidden=true\n");
  write("system/applications/kde/b.desktop", "Exec=sh\nOnlyShowIn=KDE;\n");
  write("system/applications/c.desktop", "Exec=sh\nNoDisplay=true\n");
  write("system/applications/gone.desktop", "Exec=sh\nTryExec=no-such-program-here\n");
  write("system/applications/empty.desktop", "");
  write("system/applications/bus.desktop", "DBusActivatable=true\n");
  write("system/applications/notes.txt", "Exec=sh\n");
  std::filesystem::create_symlink(root.path() / "system/applications",
                                  root.path() / "system/applications/loop");
  const std::string all = ids();
  EXPECT_TRUE(all.starts_with("a bus c(unlisted) kde-b(unlisted) ")) << all;
  EXPECT_EQ(entries.current()->find("a")->entry.name, "own");
}

TEST_F(DesktopEntriesTest, SeesChanges) {
  EXPECT_EQ(ids(), "");
  write("own/applications/a.desktop", "Exec=sh\n");
  EXPECT_EQ(ids(), "a ");
  EXPECT_EQ(entries.current(), entries.current());
  write("own/applications/a.desktop", "Exec=sh\n", "another");
  EXPECT_EQ(entries.current()->find("a")->entry.name, "another");
  std::filesystem::remove(root.path() / "own/applications/a.desktop");
  EXPECT_EQ(ids(), "");
}

TEST_F(DesktopEntriesTest, FindsIdsOnly) {
  write("own/applications/org.example.A.desktop", "Exec=sh\n");
  write("own/secret.desktop", "Exec=sh\n");
  const auto catalogue = entries.current();
  EXPECT_TRUE(catalogue->find("org.example.A"));
  EXPECT_TRUE(catalogue->find("org.example.A.desktop"));
  using namespace std::string_literals;
  for (const std::string& text :
       {""s, "."s, ".."s, ".desktop"s, "../secret"s, "../applications/org.example.A"s,
        (root.path() / "own/applications/org.example.A.desktop").string(), "org.example.A\0"s,
        "org.example.a"s, "org.example.A\n"s, "org.example.A.desktop.desktop"s}) {
    EXPECT_FALSE(catalogue->find(text)) << text;
  }
}

}  // namespace
}  // namespace vesko
