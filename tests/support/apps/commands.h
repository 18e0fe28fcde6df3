// The test programs of the accessibility tests take commands, one a line, on standard input.
#pragma once

#include <glib-unix.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <utility>

/// Calls `handle` with each line on the main loop of the program.
inline void onCommands(std::function<void(const std::string&)> handle) {
  struct Reader {
    std::function<void(const std::string&)> handle;
    std::string buffer;
  };
  auto* reader = new Reader{std::move(handle), {}};
  const auto readable = [](gint fd, GIOCondition, gpointer data) -> gboolean {
    auto* self = static_cast<Reader*>(data);
    char chunk[4096];
    const ssize_t count = ::read(fd, chunk, sizeof chunk);
    if (count <= 0) return G_SOURCE_REMOVE;
    self->buffer.append(chunk, static_cast<std::size_t>(count));
    for (auto end = self->buffer.find('\n'); end != std::string::npos;
         end = self->buffer.find('\n')) {
      const std::string line = self->buffer.substr(0, end);
      self->buffer.erase(0, end + 1);
      self->handle(line);
    }
    return G_SOURCE_CONTINUE;
  };
  g_unix_fd_add(0, G_IO_IN, +readable, reader);
}
