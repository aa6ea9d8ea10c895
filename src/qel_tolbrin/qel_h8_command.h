/// The board's microcontroller, an H8: one-shot commands and the text of the front-panel display.
///
/// A command is a byte string: the command number, then its arguments. It goes to /dev/qellpc_command,
/// which is opened on the first command and stays open; the reply is read back from there, and the call
/// blocks until the driver answers. Every failure stops the program. The H8 firmware defines what the
/// commands mean beyond their names. Unless noted otherwise, the wrappers request no reply and return the
/// transaction's result.
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// ---- The transaction ----

/// Sends `command` (1 byte or more) and reads up to `reply_len` bytes into `reply` unless that is null;
/// bytes that the reply does not fill hold 0xAB. A short read ends the reply. A command of more than 64
/// bytes goes out in records: 64-byte ones that begin with the byte 20, and a last one that begins with the
/// command number.
/// Stops on a null or empty command ("command", "command_len > 0"), a reply buffer of less than nothing
/// ("!reply || reply_len >= 0"), a failed open ("f != -1"), a write
/// that is not taken whole ("n == len"; "n == bytes_to_write" in records) and a failed read ("n >= 0").
/// Returns the number of reply bytes, 0 without a reply buffer.
int qel_h8_command(const uint8_t *command, int command_len, uint8_t *reply, int reply_len);

// ---- Commands ----

/// Sends a command that consists of its number only: 0, 7, 10, 13, 15 or 16.
int qel_h8_signal(uint8_t command);

/// Command 3: sets a value.
int qel_h8_set_value(uint8_t value);

/// Command 4: reads 64 bytes into `block`, which has room for them. Returns the number of bytes read.
int qel_h8_read_block(uint8_t *block);

/// Command 5: returns the mode byte, -128 to 127. Bit 0 asks for the console, bit 1 for the update mode.
int qel_h8_get_mode(void);

/// Commands 6 and 8: send a text of at most 62 characters with its NUL. The caller must keep the
/// limit: it is not checked, and a longer text sends bytes that were never formatted.
int qel_h8_send_text_6(const char *text);
int qel_h8_send_text_8(const char *text);

/// Command 9: sets five values.
int qel_h8_set_values(uint8_t a, uint8_t b, uint8_t c, uint8_t d, uint8_t e);

/// Command 14: reads a number that the H8 sends as decimal text. Returns it, or 0 without any digits.
long qel_h8_read_number(void);

// ---- Graphics ----

/// Command 11: sets where the next bytes go: the band of 8 rows (0 to 7) and the column (0 to 127).
int qel_h8_gfx_set_address(uint8_t band, uint8_t column);

/// Command 12: writes `len` columns from there on, one byte each, with the band's top row in bit 0.
/// Stops on null ("data") and on a length of 0 ("len > 0").
int qel_h8_gfx_write(const uint8_t *data, uint8_t len);

/// Draws an image of 128 x 64 pixels. `image` holds its rows one after another, top row first, 16 bytes
/// each; the leftmost pixel of a byte is its bit 0. Sends 8 addresses and 32 writes.
void qel_h8_gfx_draw_bitmap(const uint8_t *image);

// ---- Display text ----

/// Writes a text to a row of the display. Control characters become blanks, bytes of 127 and more become
/// "~", text beyond 62 characters is cut. Rows are not padded: an empty text clears the row.
/// Stops on a null text ("text"), a row outside 0 to 3 ("row >= 0", "row < 4"), a failed open ("f != -1")
/// or a short write ("bytes_written == bytes"). Returns the result of the close.
int qel_lcd_write_row(int row, const char *text);

#ifdef __cplusplus
}
#endif
