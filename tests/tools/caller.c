// A caller in C. It follows the includes of all headers, does something with each unit, and has a
// qel_assert_fail of its own.

#include <stdlib.h>

void qel_assert_fail(const char *expression, const char *file, int line)
{
    printf("stopped at %d: %s\n", line, expression);
    exit(file ? 0 : 1);
}

static uint8_t sent[100];

static int keep(void *context, const void *message, int length)
{
    for (int i = 0; i < length; i++)
        sent[i] = ((const uint8_t *)message)[i];
    *(uint8_t *)context = sent[8];
    return 0;
}

static int confirm(void *number)
{
    uint8_t message[sizeof(struct qel_sysmsg_confirmed)] = {qel_sysmsg_type_confirmed, 0, 0, 0, 12};
    message[8] = *(uint8_t *)number;
    extern struct qel_sysmsg_con *con;
    qel_sysmsg_receive(con, message, sizeof message);
    return 0;
}

static void take(struct qel_sysmsg_con *from, const void *message)
{
    (void)from, (void)message;
}

struct qel_sysmsg_con *con;

int main(void)
{
    char path[10], text[] = " x ";
    uint8_t number = 0;
    int length = qel_sibling_path("/a/b", "c", path, sizeof path);
    qel_str_trim(text);
    con = qel_sysmsg_create(take, keep, &number, confirm, &number);
    int confirmed = qel_sysmsg_post_45(con, 42);
    printf("%d %s %s %d ", length + 2 * qel_path_is_absolute(path), path, text, confirmed);
    for (int i = 0; i < 8; i++)
        printf("%02X", sent[i]);
    printf(" %04X\n", qel_crc16("123456789", 9));
    int answer = qel_lpc_get_pacing() + (qel_fs_hook == 0) + (qel_log_file == 0) + (qel_loader_env[0] != 0);
    QEL_ASSERT_AT(47, answer == 42);
    return 1;
}
