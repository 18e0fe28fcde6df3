pkg_check_modules(XCB_INPUT REQUIRED IMPORTED_TARGET
  xcb xcb-xtest xcb-xkb xcb-xinput xkbcommon xkbcommon-x11)

vesko_library(vesko_linux_input
  SOURCES
    key_symbols.cpp
    wheel_clicks.cpp
    x11_borrowed_keys.cpp
    x11_key_devices.cpp
    x11_keyboard.cpp
    x11_keymap.cpp
    x11_pasteboard.cpp
    x11_ping.cpp
    x11_selection_owner.cpp
    x11_selection_reader.cpp
    xtest_input.cpp
  LIBS vesko_linux_x11 PkgConfig::XCB_INPUT)
