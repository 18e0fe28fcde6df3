#include "state/line_splitter.h"

namespace vesko {

void LineSplitter::clear() {
  std::string().swap(buffer_);
  dropping_ = false;
}

}  // namespace vesko
