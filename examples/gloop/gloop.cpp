// The loop of GLib, which programs with windows have: one thread waits for a timer and for what the
// session has, and never inside the session.
#include <glib-unix.h>

#include "Counting.h"

struct Own {
    GMainLoop* loop;
    Counter counter;
    KLVMsgTimeLimit::Clock::time_point end = Limit().Deadline();
    bool isLate = false;
};

static gboolean OnTick(gpointer data) {
    Own& own = *static_cast<Own*>(data);
    own.counter.Tick();
    own.isLate = KLVMsgTimeLimit::Clock::now() >= own.end;
    if (own.isLate) {
        g_main_loop_quit(own.loop);
    }
    return G_SOURCE_CONTINUE;
}

static gboolean OnTalk(gint, GIOCondition, gpointer data) {
    Own& own = *static_cast<Own*>(data);
    if (!own.counter.Talked()) {
        g_main_loop_quit(own.loop);
    }
    return G_SOURCE_CONTINUE;
}

static int Run(int portPipe) {
    Own own{g_main_loop_new(nullptr, FALSE), Counter(portPipe)};
    const guint timer = g_timeout_add(10, OnTick, &own);
    const guint talk = g_unix_fd_add(own.counter.Descriptor(), G_IO_IN, OnTalk, &own);
    g_main_loop_run(own.loop);
    g_source_remove(timer);
    g_source_remove(talk);
    g_main_loop_unref(own.loop);
    if (own.isLate) {
        throw std::runtime_error("gave up: not all have come and gone");
    }
    return 0;
}

int main(int argc, char** argv) { return RunCounting("gloop", argc, argv, Run); }
