// An application that draws the picture /storage/image and writes a row of text, with the product's own
// functions, and stays.

#include "qel_tolbrin/qel_h8_command.h"

#include <stdio.h>
#include <unistd.h>

int main()
{
    unsigned char image[1024];
    FILE *file = fopen("/storage/image", "rb");
    if (file == nullptr || fread(image, 1, sizeof image, file) != sizeof image)
        return 1;
    fclose(file);
    qel_h8_gfx_draw_bitmap(image);
    qel_lcd_write_row(3, "drawn");
    for (;;)
        sleep(1000);
}
