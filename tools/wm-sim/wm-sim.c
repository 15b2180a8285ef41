/* talvo-wm-sim: a window-manager simulator for a private or system D-Bus.
 *
 * Owns "org.enlightenment.wm" and answers "GetVisibleWinInfo" at "/org/enlightenment/wm",
 * interface "org.enlightenment.wm.proc", with the visible windows in the twelve- or
 * thirteen-member layout. Member 8 of a record is the focus flag, member 9 the pid of the
 * window's owner; the other members are plausible constants. Windows, focus and layout are
 * changed at run time through the control interface described in usage_text below. */
#include <gio/gio.h>
#include <glib-unix.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define WM_BUS_NAME "org.enlightenment.wm"
#define WM_OBJECT_PATH "/org/enlightenment/wm"
#define WM_INTERFACE "org.enlightenment.wm.proc"
#define CONTROL_OBJECT_PATH "/org/velna/WmSim"
#define CONTROL_INTERFACE "org.velna.WmSim"
#define ERROR_NOT_ANSWERING "org.velna.WmSim.Error.NotAnswering"

static const char usage_text[] =
        "Usage: talvo-wm-sim [-a|--address=ADDRESS] [-l|--layout=12|13] [-h|--help]\n"
        "                    [-V|--version]\n"
        "\n"
        "Window-manager simulator. Connects to ADDRESS, or to the system bus\n"
        "(DBUS_SYSTEM_BUS_ADDRESS is honoured), owns \"" WM_BUS_NAME "\" and answers\n"
        "GetVisibleWinInfo at " WM_OBJECT_PATH ", interface " WM_INTERFACE ",\n"
        "with records (uiiiibibiiii) (--layout 12, the default) or (uiiiibibiiiib)\n"
        "(--layout 13). Member 8 is the focus flag, member 9 the owner's pid.\n"
        "Prints \"ready\" on standard output once the name is owned; exits on\n"
        "SIGTERM or SIGINT, or when the bus goes away.\n"
        "\n"
        "Control interface " CONTROL_INTERFACE " at " CONTROL_OBJECT_PATH ", same bus name:\n"
        "  AddWindow(i pid, b focused)  append a window for pid (or update the one it has);\n"
        "                               a focused window takes the focus from the others\n"
        "  RemoveWindow(i pid)          remove the window of pid\n"
        "  Focus(i pid)                 give pid's window the focus, opening it on top of\n"
        "                               the list when pid has none (what an app does when\n"
        "                               it comes to the front)\n"
        "  Clear()                      remove every window\n"
        "  SetLayout(u layout)          answer with 12 or 13 members from now on\n"
        "  SetAnswering(b answering)    false: GetVisibleWinInfo fails with the error\n"
        "                               " ERROR_NOT_ANSWERING " until set true again\n"
        "  ListWindows() -> a(ib)       the windows in reply order: pid, focused\n"
        "\n"
        "Example:\n"
        "  gdbus call --system --dest " WM_BUS_NAME " --object-path " CONTROL_OBJECT_PATH " \\\n"
        "    --method " CONTROL_INTERFACE ".Focus 1234\n";

static const char control_xml[] =
        "<node>"
        " <interface name='" CONTROL_INTERFACE "'>"
        "  <method name='AddWindow'><arg type='i' name='pid' direction='in'/>"
        "   <arg type='b' name='focused' direction='in'/></method>"
        "  <method name='RemoveWindow'><arg type='i' name='pid' direction='in'/></method>"
        "  <method name='Focus'><arg type='i' name='pid' direction='in'/></method>"
        "  <method name='Clear'/>"
        "  <method name='SetLayout'><arg type='u' name='layout' direction='in'/></method>"
        "  <method name='SetAnswering'><arg type='b' name='answering' direction='in'/></method>"
        "  <method name='ListWindows'><arg type='a(ib)' name='windows' direction='out'/>"
        "  </method>"
        " </interface>"
        "</node>";

/* The reply type differs per layout and GDBus checks replies against the registered
 * introspection, so the object is registered again whenever the layout changes. */
static const char wm_xml_12[] =
        "<node><interface name='" WM_INTERFACE "'><method name='GetVisibleWinInfo'>"
        "<arg type='a(uiiiibibiiii)' name='windows' direction='out'/>"
        "</method></interface></node>";
static const char wm_xml_13[] =
        "<node><interface name='" WM_INTERFACE "'><method name='GetVisibleWinInfo'>"
        "<arg type='a(uiiiibibiiiib)' name='windows' direction='out'/>"
        "</method></interface></node>";

struct window {
        guint32 id;
        gint32 pid;
        gboolean focused;
};

struct sim {
        GMainLoop *loop;
        GDBusConnection *connection;
        GDBusNodeInfo *wm_info[2]; /* [0] twelve members, [1] thirteen */
        guint wm_registration;
        int layout;                /* 12 or 13 */
        gboolean answering;
        GArray *windows;           /* struct window, in reply order */
        guint32 next_window_id;
        int exit_code;
};

static int find_window(struct sim *sim, gint32 pid)
{
        for (guint i = 0; i < sim->windows->len; i++)
                if (g_array_index(sim->windows, struct window, i).pid == pid)
                        return (int)i;
        return -1;
}

static void take_focus(struct sim *sim, int index)
{
        for (guint i = 0; i < sim->windows->len; i++)
                g_array_index(sim->windows, struct window, i).focused = (int)i == index;
}

static struct window new_window(struct sim *sim, gint32 pid)
{
        struct window w = { sim->next_window_id++, pid, FALSE };
        return w;
}

static GVariant *visible_windows(struct sim *sim)
{
        const char *record_type = sim->layout == 13 ? "(uiiiibibiiiib)" : "(uiiiibibiiii)";
        GVariantBuilder builder;
        g_variant_builder_init(&builder, G_VARIANT_TYPE(sim->layout == 13 ? "a(uiiiibibiiiib)"
                                                                            : "a(uiiiibibiiii)"));
        for (guint i = 0; i < sim->windows->len; i++) {
                struct window *w = &g_array_index(sim->windows, struct window, i);
                /* id, x, y, width, height, alpha, visibility, focused, pid, layer,
                 * opaque, iconic[, shaped] */
                if (sim->layout == 13)
                        g_variant_builder_add(&builder, record_type, w->id, 0, 0, 720, 1280,
                                              FALSE, 0, w->focused, w->pid, 200, 1, 0, FALSE);
                else
                        g_variant_builder_add(&builder, record_type, w->id, 0, 0, 720, 1280,
                                              FALSE, 0, w->focused, w->pid, 200, 1, 0);
        }
        return g_variant_new("(@*)", g_variant_builder_end(&builder));
}

static void wm_method_call(GDBusConnection *connection, const gchar *sender,
                           const gchar *object_path, const gchar *interface_name,
                           const gchar *method_name, GVariant *parameters,
                           GDBusMethodInvocation *invocation, gpointer user_data)
{
        struct sim *sim = user_data;
        (void)connection, (void)sender, (void)object_path, (void)interface_name;
        (void)method_name, (void)parameters;

        if (!sim->answering) {
                g_dbus_method_invocation_return_dbus_error(invocation, ERROR_NOT_ANSWERING,
                                                           "the simulator was told not to answer");
                return;
        }
        g_dbus_method_invocation_return_value(invocation, visible_windows(sim));
}

static const GDBusInterfaceVTable wm_vtable = { wm_method_call, NULL, NULL, { 0 } };

static gboolean register_wm_object(struct sim *sim, GError **error)
{
        if (sim->wm_registration)
                g_dbus_connection_unregister_object(sim->connection, sim->wm_registration);
        GDBusNodeInfo *info = sim->wm_info[sim->layout == 13 ? 1 : 0];
        sim->wm_registration = g_dbus_connection_register_object(
                sim->connection, WM_OBJECT_PATH, info->interfaces[0], &wm_vtable, sim, NULL,
                error);
        return sim->wm_registration != 0;
}

static void control_method_call(GDBusConnection *connection, const gchar *sender,
                                const gchar *object_path, const gchar *interface_name,
                                const gchar *method_name, GVariant *parameters,
                                GDBusMethodInvocation *invocation, gpointer user_data)
{
        struct sim *sim = user_data;
        (void)connection, (void)sender, (void)object_path, (void)interface_name;

        if (strcmp(method_name, "AddWindow") == 0) {
                gint32 pid;
                gboolean focused;
                g_variant_get(parameters, "(ib)", &pid, &focused);
                int index = find_window(sim, pid);
                if (index < 0) {
                        struct window w = new_window(sim, pid);
                        g_array_append_val(sim->windows, w);
                        index = (int)sim->windows->len - 1;
                }
                if (focused)
                        take_focus(sim, index);
                else
                        g_array_index(sim->windows, struct window, index).focused = FALSE;
        } else if (strcmp(method_name, "RemoveWindow") == 0) {
                gint32 pid;
                g_variant_get(parameters, "(i)", &pid);
                int index = find_window(sim, pid);
                if (index >= 0)
                        g_array_remove_index(sim->windows, (guint)index);
        } else if (strcmp(method_name, "Focus") == 0) {
                gint32 pid;
                g_variant_get(parameters, "(i)", &pid);
                int index = find_window(sim, pid);
                if (index < 0) {
                        struct window w = new_window(sim, pid);
                        g_array_prepend_val(sim->windows, w);
                        index = 0;
                }
                take_focus(sim, index);
        } else if (strcmp(method_name, "Clear") == 0) {
                g_array_set_size(sim->windows, 0);
        } else if (strcmp(method_name, "SetLayout") == 0) {
                guint32 layout;
                g_variant_get(parameters, "(u)", &layout);
                if (layout != 12 && layout != 13) {
                        g_dbus_method_invocation_return_error(invocation, G_DBUS_ERROR,
                                                              G_DBUS_ERROR_INVALID_ARGS,
                                                              "layout must be 12 or 13");
                        return;
                }
                GError *error = NULL;
                sim->layout = (int)layout;
                if (!register_wm_object(sim, &error)) {
                        g_dbus_method_invocation_take_error(invocation, error);
                        return;
                }
        } else if (strcmp(method_name, "SetAnswering") == 0) {
                g_variant_get(parameters, "(b)", &sim->answering);
        } else if (strcmp(method_name, "ListWindows") == 0) {
                GVariantBuilder builder;
                g_variant_builder_init(&builder, G_VARIANT_TYPE("a(ib)"));
                for (guint i = 0; i < sim->windows->len; i++) {
                        struct window *w = &g_array_index(sim->windows, struct window, i);
                        g_variant_builder_add(&builder, "(ib)", w->pid, w->focused);
                }
                g_dbus_method_invocation_return_value(
                        invocation, g_variant_new("(@a(ib))", g_variant_builder_end(&builder)));
                return;
        }
        g_dbus_method_invocation_return_value(invocation, NULL);
}

static const GDBusInterfaceVTable control_vtable = { control_method_call, NULL, NULL, { 0 } };

static void on_name_acquired(GDBusConnection *connection, const gchar *name, gpointer user_data)
{
        (void)connection, (void)user_data;
        printf("talvo-wm-sim: ready, owns %s\n", name);
        fflush(stdout);
}

static void on_name_lost(GDBusConnection *connection, const gchar *name, gpointer user_data)
{
        struct sim *sim = user_data;
        (void)connection;
        fprintf(stderr, "talvo-wm-sim: cannot own %s\n", name);
        sim->exit_code = 1;
        g_main_loop_quit(sim->loop);
}

static void on_closed(GDBusConnection *connection, gboolean remote_peer_vanished, GError *error,
                      gpointer user_data)
{
        struct sim *sim = user_data;
        (void)connection, (void)remote_peer_vanished, (void)error;
        g_main_loop_quit(sim->loop);
}

static gboolean on_signal(gpointer user_data)
{
        struct sim *sim = user_data;
        g_main_loop_quit(sim->loop);
        return G_SOURCE_CONTINUE;
}

static GDBusConnection *connect_bus(const char *address, GError **error)
{
        if (!address)
                return g_bus_get_sync(G_BUS_TYPE_SYSTEM, NULL, error);
        return g_dbus_connection_new_for_address_sync(
                address,
                G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION,
                NULL, NULL, error);
}

int main(int argc, char **argv)
{
        gchar *address = NULL;
        gint layout = 12;
        gboolean help = FALSE, version = FALSE;
        GOptionEntry entries[] = {
                { "address", 'a', 0, G_OPTION_ARG_STRING, &address, "D-Bus address to use", "ADDRESS" },
                { "layout", 'l', 0, G_OPTION_ARG_INT, &layout, "12 or 13 members per record", "N" },
                { "help", 'h', 0, G_OPTION_ARG_NONE, &help, "Show this help", NULL },
                { "version", 'V', 0, G_OPTION_ARG_NONE, &version, "Show the version", NULL },
                { NULL, 0, 0, 0, NULL, NULL, NULL },
        };
        GError *error = NULL;
        GOptionContext *options = g_option_context_new(NULL);
        g_option_context_set_help_enabled(options, FALSE);
        g_option_context_add_main_entries(options, entries, NULL);
        gboolean parsed = g_option_context_parse(options, &argc, &argv, &error);
        g_option_context_free(options);
        if (parsed && help) {
                fputs(usage_text, stdout);
                return 0;
        }
        if (parsed && version) {
                puts("talvo-wm-sim " TALVO_VERSION);
                return 0;
        }
        /* GOption may leave the "--" that ended the options. */
        gboolean only_dashes = argc == 2 && strcmp(argv[1], "--") == 0;
        if (!parsed || (argc > 1 && !only_dashes) || (layout != 12 && layout != 13)) {
                fprintf(stderr, "talvo-wm-sim: %s (see talvo-wm-sim --help)\n",
                        error ? error->message : "--layout takes 12 or 13, and no argument follows");
                g_clear_error(&error);
                return 2;
        }

        signal(SIGPIPE, SIG_IGN);

        struct sim sim = { 0 };
        sim.layout = layout;
        sim.answering = TRUE;
        sim.next_window_id = 0x1000;
        sim.windows = g_array_new(FALSE, TRUE, sizeof(struct window));
        sim.loop = g_main_loop_new(NULL, FALSE);

        sim.connection = connect_bus(address, &error);
        if (!sim.connection) {
                fprintf(stderr, "talvo-wm-sim: cannot connect to the bus: %s\n", error->message);
                g_error_free(error);
                return 1;
        }
        g_dbus_connection_set_exit_on_close(sim.connection, FALSE);
        g_signal_connect(sim.connection, "closed", G_CALLBACK(on_closed), &sim);

        sim.wm_info[0] = g_dbus_node_info_new_for_xml(wm_xml_12, NULL);
        sim.wm_info[1] = g_dbus_node_info_new_for_xml(wm_xml_13, NULL);
        GDBusNodeInfo *control_info = g_dbus_node_info_new_for_xml(control_xml, NULL);
        guint control_registration = g_dbus_connection_register_object(
                sim.connection, CONTROL_OBJECT_PATH, control_info->interfaces[0],
                &control_vtable, &sim, NULL, &error);
        if (!control_registration || !register_wm_object(&sim, &error)) {
                fprintf(stderr, "talvo-wm-sim: cannot register objects: %s\n", error->message);
                g_error_free(error);
                return 1;
        }

        guint owner = g_bus_own_name_on_connection(sim.connection, WM_BUS_NAME,
                                                   G_BUS_NAME_OWNER_FLAGS_DO_NOT_QUEUE,
                                                   on_name_acquired, on_name_lost, &sim, NULL);
        g_unix_signal_add(SIGTERM, on_signal, &sim);
        g_unix_signal_add(SIGINT, on_signal, &sim);

        g_main_loop_run(sim.loop);

        g_bus_unown_name(owner);
        g_dbus_connection_unregister_object(sim.connection, sim.wm_registration);
        g_dbus_connection_unregister_object(sim.connection, control_registration);
        g_dbus_connection_flush_sync(sim.connection, NULL, NULL);
        g_object_unref(sim.connection);
        g_dbus_node_info_unref(control_info);
        g_dbus_node_info_unref(sim.wm_info[0]);
        g_dbus_node_info_unref(sim.wm_info[1]);
        g_array_free(sim.windows, TRUE);
        g_main_loop_unref(sim.loop);
        g_free(address);
        return sim.exit_code;
}
