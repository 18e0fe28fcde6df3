# The accessibility of the desktop's toolkits, AT-SPI, over a D-Bus client of our own.
vesko_library(vesko_linux_accessibility
  SOURCES
    atspi_accessibility.cpp
    atspi_actor.cpp
    atspi_bus.cpp
    atspi_context.cpp
    atspi_objects.cpp
    atspi_pages.cpp
    atspi_places.cpp
    atspi_reader.cpp
    atspi_roles.cpp
    atspi_toolkit.cpp
    atspi_windows.cpp
    dbus_address.cpp
    dbus_connection.cpp
    dbus_message.cpp
  LIBS vesko_linux_windows)
target_link_libraries(vesko_linux_accessibility PRIVATE fmt::fmt)
