// Bodies of tool requests: whatever decodes must encode, and decode again to the same record.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "base/json_record.h"
#include "state/status_records.h"
#include "tools/app_window_control.h"
#include "tools/input_control.h"
#include "tools/photos_export.h"
#include "tools/screen_capture.h"

namespace {

template <class Record>
void roundTrip(std::string_view text) {
  const auto first = vesko::json::decode<Record>(text);
  if (!first) return;
  const auto encoded = vesko::json::encode(*first);
  if (!encoded) std::abort();
  const auto second = vesko::json::decode<Record>(*encoded);
  if (!second || vesko::json::encode(*second) != encoded) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace vesko;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  roundTrip<MoveRequest>(text);
  roundTrip<ClickRequest>(text);
  roundTrip<DragRequest>(text);
  roundTrip<ScrollRequest>(text);
  roundTrip<TypeRequest>(text);
  roundTrip<KeyRequest>(text);
  roundTrip<HotkeyRequest>(text);
  roundTrip<ClipboardSetRequest>(text);
  roundTrip<CaptureRequest>(text);
  roundTrip<ExportRequest>(text);
  roundTrip<AppRequest>(text);
  roundTrip<WindowRequest>(text);
  roundTrip<WindowMoveRequest>(text);
  roundTrip<WindowResizeRequest>(text);
  roundTrip<HistoryExportStatus>(text);
  roundTrip<AssistantImportStatus>(text);
  return 0;
}
