// Photos library packages, made by the tests.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>

#include "support/temporary_directory.h"

namespace vesko::test {

inline sqlite3* openDatabase(const std::filesystem::path& file) {
  std::filesystem::create_directories(file.parent_path());
  sqlite3* database = nullptr;
  EXPECT_EQ(sqlite3_open(file.c_str(), &database), SQLITE_OK);
  return database;
}

inline void run(sqlite3* database, const std::string& statements) {
  char* error = nullptr;
  EXPECT_EQ(sqlite3_exec(database, statements.c_str(), nullptr, nullptr, &error), SQLITE_OK)
      << error;
}

struct TestPackage {
  support::TemporaryDirectory folder;

  std::filesystem::path path() const { return folder / "Photos Library.photoslibrary"; }
  std::filesystem::path catalogue() const { return path() / "database/Photos.sqlite"; }

  void sql(const std::string& statements) const {
    sqlite3* database = openDatabase(catalogue());
    run(database, statements);
    sqlite3_close(database);
  }
  void tables(const std::string& assets = "ZASSET") const {
    sql("CREATE TABLE " + assets +
        "(Z_PK INTEGER PRIMARY KEY, ZUUID TEXT, ZDIRECTORY TEXT, ZFILENAME TEXT, ZKIND INTEGER,"
        " ZWIDTH INTEGER, ZHEIGHT INTEGER, ZUNIFORMTYPEIDENTIFIER TEXT, ZTRASHEDSTATE INTEGER,"
        " ZHIDDEN INTEGER);"
        "CREATE TABLE ZADDITIONALASSETATTRIBUTES(Z_PK INTEGER PRIMARY KEY, ZASSET INTEGER,"
        " ZORIGINALFILENAME TEXT);");
  }
  /// `values` follow the column list, as in "'UUID','0','a.jpg',0,40,30,'public.jpeg',0,0".
  void asset(int key, const std::string& values, const std::string& originalName = {},
             const std::string& assets = "ZASSET") const {
    sql("INSERT INTO " + assets + " VALUES(" + std::to_string(key) + "," + values + ")");
    if (!originalName.empty())
      sql("INSERT INTO ZADDITIONALASSETATTRIBUTES VALUES(" + std::to_string(key + 1000) + "," +
          std::to_string(key) + ",'" + originalName + "')");
  }
  void original(const std::string& name, const std::string& content) const {
    support::writeFile(path() / "originals" / name, content);
  }
};

}  // namespace vesko::test
