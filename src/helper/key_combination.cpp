#include "helper/key_combination.h"

#include "base/text.h"

namespace vesko {

std::string fullModifierName(std::string_view name) {
  std::string word = lowerAscii(name);
  if (word == "ctrl") return "control";
  if (word == "cmd") return "command";
  if (word == "alt" || word == "opt") return "option";
  return word;
}

std::optional<std::vector<std::string>> parseKeyCombination(std::string_view text) {
  text = trim(text);
  std::vector<std::string> words;
  // A plus sign separates, unless it stands where the key belongs.
  bool plusKey = false;
  if (text.ends_with('+')) {
    text.remove_suffix(1);
    plusKey = text.empty() || text.back() == '+' || isAsciiSpace(text.back());
    if (!plusKey) return std::nullopt;
  }
  std::string word;
  for (const char c : std::string(text) + '+') {
    if (c != '+' && !isAsciiSpace(c)) {
      word += c;
    } else if (!word.empty()) {
      words.push_back(fullModifierName(word));
      word.clear();
    }
  }
  if (plusKey) words.emplace_back("+");
  if (words.empty()) return std::nullopt;
  return words;
}

}  // namespace vesko
