// The sample application of the simulated cabinet: an X client that draws the system's name, the number
// of this run, its surroundings and a bar that fills in four seconds, and then ends, so that the loader
// starts it again. The runs are counted in a file in the home folder, which lives as long as the machine.

#include <X11/Xlib.h>
#include <X11/Xutil.h>

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <string>

namespace
{

const int width = 800, height = 600;
const int steps = 40, step_ms = 100;
const unsigned long background = 0x10243e, foreground = 0xf2f2f2, accent = 0xf5a623, pale = 0x8fa8c8;

struct Canvas {
    Display *display;
    Window window;
    GC context;
};

/// The server is started beside the application and may need a moment.
Display *connect_to_server()
{
    for (int attempt = 0; attempt < 300; ++attempt) {
        if (Display *display = XOpenDisplay(nullptr))
            return display;
        usleep(100 * 1000);
    }
    fprintf(stderr, "sample application: no X server on %s\n", getenv("DISPLAY"));
    exit(1);
}

Canvas open_window()
{
    Canvas canvas = {};
    canvas.display = connect_to_server();
    canvas.window = XCreateSimpleWindow(canvas.display, DefaultRootWindow(canvas.display), 0, 0, width,
                                        height, 0, 0, background);
    XSelectInput(canvas.display, canvas.window, ExposureMask);
    XMapWindow(canvas.display, canvas.window);
    canvas.context = XCreateGC(canvas.display, canvas.window, 0, nullptr);
    XEvent event;
    do
        XNextEvent(canvas.display, &event);
    while (event.type != Expose);
    return canvas;
}

void fill(Canvas &canvas, unsigned long color, int x, int y, int w, int h)
{
    XSetForeground(canvas.display, canvas.context, color);
    XFillRectangle(canvas.display, canvas.window, canvas.context, x, y, static_cast<unsigned>(w),
                   static_cast<unsigned>(h));
}

/// The server's only sure font is small: it is drawn out of sight and copied pixel by pixel, enlarged.
void draw_text(Canvas &canvas, unsigned long color, int x, int y, int scale, const std::string &text)
{
    const int font_width = 6, font_height = 13, font_ascent = 11;
    int length = static_cast<int>(text.size());
    unsigned w = static_cast<unsigned>(length * font_width), h = font_height;
    Pixmap pixmap = XCreatePixmap(canvas.display, canvas.window, w, h, 1);
    GC pen = XCreateGC(canvas.display, pixmap, 0, nullptr);
    XSetForeground(canvas.display, pen, 0);
    XFillRectangle(canvas.display, pixmap, pen, 0, 0, w, h);
    XSetForeground(canvas.display, pen, 1);
    XDrawString(canvas.display, pixmap, pen, 0, font_ascent, text.data(), length);
    XImage *image = XGetImage(canvas.display, pixmap, 0, 0, w, h, 1, ZPixmap);
    for (int row = 0; row < font_height; ++row)
        for (int column = 0; column < static_cast<int>(w); ++column)
            if (XGetPixel(image, column, row) != 0)
                fill(canvas, color, x + column * scale, y + row * scale, scale, scale);
    XDestroyImage(image);
    XFreeGC(canvas.display, pen);
    XFreePixmap(canvas.display, pixmap);
}

int count_run()
{
    const char *home = getenv("HOME");
    std::string path = std::string(home == nullptr ? "/tmp" : home) + "/qel_sample_runs";
    int runs = 0;
    std::ifstream(path) >> runs;
    std::ofstream(path) << ++runs;
    return runs;
}

std::string variable(const char *name)
{
    const char *value = getenv(name);
    return std::string(name) + "=" + (value == nullptr ? "(none)" : value);
}

} // namespace

int main(int, char **argv)
{
    int run = count_run();
    Canvas canvas = open_window();
    draw_text(canvas, foreground, 60, 60, 8, "QEL cabinet");
    draw_text(canvas, accent, 60, 200, 5, "run " + std::to_string(run));
    int y = 310;
    for (const std::string &line :
         {std::string(argv[0]), variable("DISPLAY"), variable("HOME"), variable("TERM")}) {
        draw_text(canvas, pale, 60, y, 2, line);
        y += 36;
    }
    fill(canvas, pale, 60, 500, width - 120, 40);
    for (int step = 1; step <= steps; ++step) {
        fill(canvas, accent, 64, 504, (width - 128) * step / steps, 32);
        XSync(canvas.display, False);
        usleep(step_ms * 1000);
    }
    XCloseDisplay(canvas.display);
    return 0;
}
