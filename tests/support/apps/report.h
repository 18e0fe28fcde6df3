// What the test programs have in common: they tell what reaches them, one line each on standard
// output, "<kind> <detail>", with line feeds, tabs and backslashes of texts escaped.
#pragma once

#include <cstdio>
#include <string>

inline void report(const std::string& line) {
  std::string escaped;
  for (const char c : line) {
    if (c == '\n')
      escaped += "\\n";
    else if (c == '\t')
      escaped += "\\t";
    else if (c == '\\')
      escaped += "\\\\";
    else
      escaped += c;
  }
  std::printf("%s\n", escaped.c_str());
  std::fflush(stdout);
}
