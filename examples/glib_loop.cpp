// Hosts the client on a GLib main loop: the loop watches the client's descriptor and
// calls dispatch() when work is due. Prints the post's charger state, then quits.
#include <glib-unix.h>
#include <tqble/TQBle.h>

#include <cstdio>

using namespace tqble;

int main() {
  setLogSink([](std::string_view) {});
  ChargerClient client;
  GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
  const guint watch = g_unix_fd_add(
      client.eventFd(), G_IO_IN,
      [](gint, GIOCondition, gpointer data) -> gboolean {
        static_cast<ChargerClient*>(data)->dispatch();
        return G_SOURCE_CONTINUE;
      },
      &client);

  int status = 1;
  client.connect("", [&](const Outcome<ChargerClient::PeripheralPtr>& link) {
    if (!link.ok()) {
      std::fprintf(stderr, "connect: %s\n", link.error().message.c_str());
      return g_main_loop_quit(loop);
    }
    std::printf("connected to %s\n", link.value()->name().c_str());
    client.queryChargerState([&](const Outcome<ChargerState>& state) {
      if (state.ok()) {
        std::printf("gun: %s\n", name(state.value().gunState));
        status = 0;
      } else {
        std::fprintf(stderr, "state: %s\n", state.error().message.c_str());
      }
      g_main_loop_quit(loop);
    });
  });
  g_main_loop_run(loop);
  g_source_remove(watch);
  g_main_loop_unref(loop);
  return status;
}
