// Commands to the H8 and the display's text rows, through the board driver's device files.
//
// A record is what one write hands to the driver, 64 bytes at most. A longer command is sent in pieces:
//
//   continuation record   offset 0  size 1   20
//                                1       63  the next 63 bytes of arguments
//   final record                 0        1  command number
//                                1  1 to 63  the remaining arguments

#include "qel_tolbrin/qel_h8_command.h"
#include "qel_utility/qel_log.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

enum {
    record_bytes_max = 64,
    continuation_mark = 20,
    reply_filler = 0xAB,
    lcd_text_max = 62,
    image_columns = 128,
    image_row_bytes = image_columns / 8,
    image_bands = 8,
    columns_per_write = 32,
};

/// The command device; opened on the first command, never closed.
static int command_device = -1;

static int _open_device(const char *path, int flags)
{
    int f = open(path, flags);
    QEL_ASSERT(f != -1);
    return f;
}

// ---- The transaction ----

/// Sends a command of more than 64 bytes in records.
static void _send_in_records(const uint8_t *command, int command_len)
{
    const uint8_t *data = command + 1;
    for (int left = command_len - 1; left > 0;) {
        int is_final = left < record_bytes_max;
        int data_bytes = is_final ? left : record_bytes_max - 1;
        int bytes_to_write = data_bytes + 1;

        uint8_t record[record_bytes_max];
        record[0] = is_final ? command[0] : (uint8_t)continuation_mark;
        memcpy(record + 1, data, (size_t)data_bytes);
        ssize_t n = write(command_device, record, (size_t)bytes_to_write);
        QEL_ASSERT(n == bytes_to_write);

        data += data_bytes;
        left -= data_bytes;
    }
}

static void _send(const uint8_t *command, int len)
{
    if (len > record_bytes_max) {
        _send_in_records(command, len);
        return;
    }
    ssize_t n = write(command_device, command, (size_t)len);
    QEL_ASSERT(n == len);
}

/// Reads up to `reply_len` bytes; a short read ends the reply. Returns the number of bytes.
static int _receive(uint8_t *reply, int reply_len)
{
    memset(reply, reply_filler, (size_t)reply_len);
    int total = 0;
    while (total < reply_len) {
        int remaining = reply_len - total;
        int wanted = remaining < record_bytes_max ? remaining : (int)record_bytes_max;
        ssize_t n = read(command_device, reply + total, (size_t)wanted);
        QEL_ASSERT(n >= 0);
        total += (int)n;
        if (n < wanted)
            break;
    }
    return total;
}

int qel_h8_command(const uint8_t *command, int command_len, uint8_t *reply, int reply_len)
{
    QEL_ASSERT(command);
    QEL_ASSERT(command_len > 0);
    QEL_ASSERT(!reply || reply_len >= 0);

    if (command_device == -1)
        command_device = _open_device("/dev/qellpc_command", O_RDWR);
    _send(command, command_len);
    return reply ? _receive(reply, reply_len) : 0;
}

// ---- Commands ----

int qel_h8_signal(uint8_t command)
{
    return qel_h8_command(&command, 1, nullptr, 0);
}

int qel_h8_set_value(uint8_t value)
{
    const uint8_t command[] = {3, value};
    return qel_h8_command(command, sizeof command, nullptr, 0);
}

/// Sends a command without arguments and reads the reply into the 64 bytes of `block`.
static int _query(uint8_t command, uint8_t *block)
{
    return qel_h8_command(&command, 1, block, record_bytes_max);
}

int qel_h8_read_block(uint8_t *block)
{
    return _query(4, block);
}

int qel_h8_get_mode(void)
{
    uint8_t reply[record_bytes_max];
    _query(5, reply);
    return (int8_t)reply[0];
}

static int _send_text(uint8_t number, const char *text)
{
    char command[record_bytes_max];
    snprintf(command, sizeof command, "%c%s", number, text);
    return qel_h8_command((const uint8_t *)command, (int)strlen(text) + 2, nullptr, 0);
}

int qel_h8_send_text_6(const char *text)
{
    return _send_text(6, text);
}

int qel_h8_send_text_8(const char *text)
{
    return _send_text(8, text);
}

int qel_h8_set_values(uint8_t a, uint8_t b, uint8_t c, uint8_t d, uint8_t e)
{
    const uint8_t command[] = {9, a, b, c, d, e};
    return qel_h8_command(command, sizeof command, nullptr, 0);
}

long qel_h8_read_number(void)
{
    uint8_t reply[record_bytes_max + 1];
    _query(14, reply);
    reply[record_bytes_max] = '\0';
    return strtol((const char *)reply, nullptr, 10);
}

// ---- Graphics ----

int qel_h8_gfx_set_address(uint8_t band, uint8_t column)
{
    const uint8_t command[] = {11, band, column};
    return qel_h8_command(command, sizeof command, nullptr, 0);
}

int qel_h8_gfx_write(const uint8_t *data, uint8_t len)
{
    QEL_ASSERT(data);
    QEL_ASSERT(len > 0);

    uint8_t command[1 + UINT8_MAX] = {12};
    memcpy(command + 1, data, len);
    return qel_h8_command(command, 1 + len, nullptr, 0);
}

/// Returns the 8 pixels of a band at column `x`, the band's top row in bit 0.
static uint8_t _band_column(const uint8_t *image, int band, int x)
{
    int column = 0;
    for (int k = 0; k < 8; k++) {
        uint8_t eight_pixels = image[(8 * band + k) * image_row_bytes + x / 8];
        column |= (eight_pixels >> x % 8 & 1) << k;
    }
    return (uint8_t)column;
}

void qel_h8_gfx_draw_bitmap(const uint8_t *image)
{
    for (int band = 0; band < image_bands; band++) {
        qel_h8_gfx_set_address((uint8_t)band, 0);
        for (int x = 0; x < image_columns; x += columns_per_write) {
            uint8_t columns[columns_per_write];
            for (int i = 0; i < columns_per_write; i++)
                columns[i] = _band_column(image, band, x + i);
            qel_h8_gfx_write(columns, columns_per_write);
        }
    }
}

// ---- Display text ----

/// What the display shows for a character of a text.
static char _lcd_character(char character)
{
    unsigned char byte = (unsigned char)character;
    if (byte < ' ')
        return ' ';
    return byte > '~' ? '~' : character;
}

int qel_lcd_write_row(int row, const char *text)
{
    QEL_ASSERT(text);
    QEL_ASSERT(row >= 0);
    QEL_ASSERT(row < 4);

    int display = _open_device("/dev/qellpc_lcd", O_WRONLY);
    char record[record_bytes_max];
    int bytes = 0;
    record[bytes++] = (char)('0' + row);
    for (; *text && bytes <= lcd_text_max; text++)
        record[bytes++] = _lcd_character(*text);
    record[bytes++] = '\0';
    ssize_t bytes_written = write(display, record, (size_t)bytes);
    QEL_ASSERT(bytes_written == bytes);
    return close(display);
}
