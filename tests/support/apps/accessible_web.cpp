// A window with a web page (WebKitGTK 6.0) for the accessibility tests, as accessible_gtk3.cpp
// describes them. On standard input it takes "frames".
#include <webkit/webkit.h>

#include <string>

#include "commands.h"
#include "report.h"

namespace {

const char* const page =
    "<!doctype html><title>The Page</title><body style='margin:20px'><h1>The Heading</h1>"
    "<p>Some paragraph text</p><a href='#x'>The Link</a><br>"
    "<button onclick=\"document.title='clicked'\">The Button</button>"
    "<button disabled>The Disabled</button><br>"
    "<input aria-label='The Entry' value='first 世界' "
    "oninput=\"document.title='entry '+this.value\"><br>"
    "<input type=checkbox aria-label='Check'>"
    "<div style='height:3000px'></div><button>Far Below</button>";

void titleChanged(WebKitWebView* view, GParamSpec*, gpointer) {
  const char* title = webkit_web_view_get_title(view);
  if (title) report(std::string("title ") + title);
}

void loaded(WebKitWebView*, WebKitLoadEvent event, gpointer) {
  if (event == WEBKIT_LOAD_FINISHED) report("ready");
}

void command(WebKitWebView* view, const std::string& line) {
  // Put into the title, which is told.
  if (line == "frames")
    webkit_web_view_evaluate_javascript(
        view,
        "const r = document.querySelector('button').getBoundingClientRect();"
        "document.title = ['frame', r.x, r.y, r.width, r.height].map("
        "v => typeof v === 'number' ? Math.round(v) : v).join(' ')",
        -1, nullptr, nullptr, nullptr, nullptr, nullptr);
}

}  // namespace

int main() {
  gtk_init();
  GtkWidget* window = gtk_window_new();
  gtk_window_set_title(GTK_WINDOW(window), "Accessible Web");
  gtk_window_set_default_size(GTK_WINDOW(window), 700, 500);
  GtkWidget* view = webkit_web_view_new();
  g_signal_connect(view, "notify::title", G_CALLBACK(titleChanged), nullptr);
  g_signal_connect(view, "load-changed", G_CALLBACK(loaded), nullptr);
  gtk_window_set_child(GTK_WINDOW(window), view);
  gtk_window_present(GTK_WINDOW(window));
  webkit_web_view_load_html(WEBKIT_WEB_VIEW(view), page, nullptr);
  onCommands([view](const std::string& line) { command(WEBKIT_WEB_VIEW(view), line); });
  g_main_loop_run(g_main_loop_new(nullptr, FALSE));
}
