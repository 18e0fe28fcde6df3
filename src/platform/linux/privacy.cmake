# The program that asks the user for consents. The only one here that links a toolkit.
pkg_check_modules(ADWAITA REQUIRED IMPORTED_TARGET libadwaita-1 gtk4-x11 x11)

add_executable(vesko-privacy
  privacy/ask_dialog.cpp
  privacy/consent_texts.cpp
  privacy/privacy_main.cpp
  privacy/settings_window.cpp
  privacy/widgets.cpp)
target_link_libraries(vesko-privacy PRIVATE
  vesko_flags vesko_base vesko_linux_system fmt::fmt PkgConfig::ADWAITA)
