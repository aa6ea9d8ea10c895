// The types that programs outside were built with: they link the libraries, so that every number of the
// headers keeps its width and sign.

#include "qel_tolbrin/qel_comms.h"
#include "qel_tolbrin/qel_h8_command.h"
#include "qel_tolbrin/qel_lpc_comms.h"
#include "qel_tolbrin/qel_sysmsg.h"
#include "qel_utility/qel_filesystem.h"
#include "qel_utility/qel_log.h"
#include "qel_utility/qel_string.h"

#include <gtest/gtest.h>

#include <type_traits>

#define EXPECT_TYPE(thing, ...) EXPECT_TRUE((std::is_same_v<decltype(thing), __VA_ARGS__>)) << #thing

TEST(Interfaces, OfTheUtilitiesKeepTheirTypes)
{
    EXPECT_TYPE(qel_assert_fail, void(const char *, const char *, int));
    EXPECT_TYPE(qel_location_code, void(const char *, int, char *, int));
    EXPECT_TYPE(qel_str_replace, int(const char *, char *, int, const char *, const char *));
}

TEST(Interfaces, OfTheFileSystemKeepTheirTypes)
{
    EXPECT_TYPE(_qel_path_root_len, int(const char *, int));
    EXPECT_TYPE(_qel_path_is_root_dir, int(const char *, int));
    EXPECT_TYPE(_qel_path_is_valid, int(const char *, int));
    EXPECT_TYPE(_qel_path_is_absolute, int(const char *, int));
    EXPECT_TYPE(qel_parent_dir, void(const char *, char *, int));
    EXPECT_TYPE(qel_child_path, int(const char *, const char *, char *, int));
    EXPECT_TYPE(qel_sibling_path, int(const char *, const char *, char *, int));
    EXPECT_TYPE(qel_filename_part, int(const char *, char *, int));
    EXPECT_TYPE(qel_path_put_extension, int(const char *, char *, int));
    EXPECT_TYPE(find_file_no_case, int(const char *, const char *, char *, int));
    EXPECT_TYPE(qel_read_block, unsigned(void *, unsigned, FILE *));
    EXPECT_TYPE(qel_write_block, unsigned(const void *, unsigned, FILE *));
    EXPECT_TYPE(qel_get_folder_size_with_threshold, int(const char *, int64_t, int64_t *));
    EXPECT_TYPE(qel_get_folder_size, int64_t(const char *));
    EXPECT_TYPE(qel_get_disk_space, void(const char *, int64_t *, int64_t *));
    EXPECT_TYPE(qel_get_free_disk_space, int64_t(const char *));
    EXPECT_TYPE(qel_get_current_dir, int(char *, int));
    EXPECT_TYPE(qel_elapsed_usec, uint32_t());
    EXPECT_TYPE(qel_copy_foo::exclude, uint32_t);
    EXPECT_TYPE(qel_cpdirtree_with_foo, int(const char *, const char *, const qel_copy_foo *, int));
    EXPECT_TYPE(_qel_cpdirtree_with_foo, int(const char *, const char *, int, const qel_copy_foo *, int));
    EXPECT_TYPE(_qel_cpdirtree, int(const char *, const char *, int));
    EXPECT_TYPE(qel_wine_exec_capture, const char *(const char *, const char *const *, int));
    EXPECT_TYPE(qel_mount, int(const char *, const char *, const char *, unsigned long, const void *));
    EXPECT_TYPE(qel_make_lpc_node, void(const char *, unsigned, unsigned));
    EXPECT_TYPE(qel_make_node_from_sysfs, int(const char *, const char *, mode_t));
}

TEST(Interfaces, OfTheBoardKeepTheirTypes)
{
    EXPECT_TYPE(qel_h8_command, int(const uint8_t *, int, uint8_t *, int));
    EXPECT_TYPE(qel_h8_signal, int(uint8_t));
    EXPECT_TYPE(qel_h8_set_value, int(uint8_t));
    EXPECT_TYPE(qel_h8_read_block, int(uint8_t *));
    EXPECT_TYPE(qel_h8_set_values, int(uint8_t, uint8_t, uint8_t, uint8_t, uint8_t));
    EXPECT_TYPE(qel_h8_read_number, long());
    EXPECT_TYPE(qel_h8_gfx_set_address, int(uint8_t, uint8_t));
    EXPECT_TYPE(qel_h8_gfx_write, int(const uint8_t *, uint8_t));
    EXPECT_TYPE(qel_h8_gfx_draw_bitmap, void(const uint8_t *));
    EXPECT_TYPE(qel_lcd_write_row, int(int, const char *));
    EXPECT_TYPE(qel_lpc::fd, int);
    EXPECT_TYPE(qel_lpc_packet_send_end, int(void *, void *, int, int));
    EXPECT_TYPE(qel_lpc_write, int(qel_lpc *, const void *, int));
    EXPECT_TYPE(qel_lpc_set_pacing, int(int));
}

TEST(Interfaces, OfThePacketLinkKeepTheirTypes)
{
    EXPECT_TYPE(qel_comms::packet_size_max, int);
    EXPECT_TYPE(qel_comms_create, qel_comms * (int, qel_comms_packet_send_begin_function *,
                                               qel_comms_packet_send_end_function *, void *,
                                               qel_comms_poll_function *, void *));
    EXPECT_TYPE(qel_comms_send, int(void *, const void *, int));
    EXPECT_TYPE(qel_comms_receive_packet, int(void *, const void *, int));
    EXPECT_TYPE(qel_crc16, uint16_t(const void *, int));
    EXPECT_TYPE(qel_crc16_init, uint16_t());
    EXPECT_TYPE(qel_crc16_update, uint16_t(uint16_t, const void *, int));
    EXPECT_TYPE(qel_crc16_final, uint16_t(uint16_t));
    EXPECT_TYPE(qel_crc16_update_final, uint16_t(uint16_t, const void *, int));
    EXPECT_TYPE(qel_crc16_value, uint16_t(uint16_t));
}

TEST(Interfaces, OfTheSystemMessagesKeepTheirTypes)
{
    EXPECT_TYPE(qel_sysmsg_confirmed::msg_type, uint32_t);
    EXPECT_TYPE(qel_sysmsg_confirmed::msg_size, uint32_t);
    EXPECT_TYPE(qel_sysmsg_confirmed::sequence, uint8_t);
    EXPECT_TYPE(qel_sysmsg_confirmed::padding, uint8_t[3]);
    EXPECT_TYPE(qel_sysmsg_has_sequence, int(uint32_t));
    EXPECT_TYPE(qel_sysmsg_receive, void(void *, const void *, int));
    EXPECT_TYPE(qel_sysmsg_send_sequenced, int(qel_sysmsg_con *, void *, int, uint32_t, void *, int32_t));
    EXPECT_TYPE(qel_sysmsg_send_blob, void(qel_sysmsg_con *, uint32_t, const void *, int));
    EXPECT_TYPE(qel_sysmsg_request_blob, int(qel_sysmsg_con *, uint32_t, const void *, int));
    EXPECT_TYPE(qel_sysmsg_info::own, uint32_t);
    EXPECT_TYPE(qel_sysmsg_info::a, uint32_t);
    EXPECT_TYPE(qel_sysmsg_info::b, uint32_t);
    EXPECT_TYPE(qel_sysmsg_info::c, uint32_t);
    EXPECT_TYPE(qel_sysmsg_connect, void(qel_sysmsg_con *, uint32_t));
    EXPECT_TYPE(qel_sysmsg_send_updater, void(qel_sysmsg_con *, const void *, int));
    EXPECT_TYPE(qel_sysmsg_notify_30, void(qel_sysmsg_con *, uint32_t));
    EXPECT_TYPE(qel_sysmsg_post_19, int(qel_sysmsg_con *, const char *, uint32_t, const void *));
    EXPECT_TYPE(qel_sysmsg_post_21, int(qel_sysmsg_con *, uint32_t));
    EXPECT_TYPE(qel_sysmsg_post_32, int(qel_sysmsg_con *, const char *, uint32_t));
    EXPECT_TYPE(qel_sysmsg_post_45, int(qel_sysmsg_con *, uint32_t));
    EXPECT_TYPE(qel_sysmsg_transfer_begin, int(qel_sysmsg_con *, uint32_t));
    EXPECT_TYPE(qel_sysmsg_transfer_data, int(qel_sysmsg_con *, const void *, int));
    EXPECT_TYPE(qel_sysmsg_file_data, int(qel_sysmsg_con *, const void *, int));
    EXPECT_TYPE(qel_sysmsg_send_buffer_as_file, int(qel_sysmsg_con *, const void *, int, const char *));
    EXPECT_TYPE(qel_sysmsg_get_plugins, int(qel_sysmsg_con *, uint32_t *, int32_t, uint32_t *));
    EXPECT_TYPE(qel_sysmsg_reply_plugins, int(qel_sysmsg_con *, const uint32_t *, uint32_t));
    EXPECT_TYPE(qel_sysmsg_query_23,
                int(qel_sysmsg_con *, const char *, const char *const *, uint32_t, const char **));
    EXPECT_TYPE(qel_sysmsg_tolbrin_path_exists, int(qel_sysmsg_con *, const char *, uint32_t *));
    EXPECT_TYPE(qel_sysmsg_reply_path_exists, int(qel_sysmsg_con *, uint32_t));
    EXPECT_TYPE(qel_sysmsg_reply_info, int(qel_sysmsg_con *, uint32_t, uint32_t, uint32_t));
    EXPECT_TYPE(qel_sysmsg_get_item_size,
                int(qel_sysmsg_con *, uint32_t, const char *, uint32_t, uint64_t *));
    EXPECT_TYPE(qel_sysmsg_reply_item_size,
                int(qel_sysmsg_con *, uint32_t, const char *, uint32_t, uint64_t));
    EXPECT_TYPE(qel_sysmsg_query_41, int(qel_sysmsg_con *, uint64_t *, uint64_t *));
    EXPECT_TYPE(qel_sysmsg_reply_42, int(qel_sysmsg_con *, uint64_t, uint64_t));
    EXPECT_TYPE(qel_sysmsg_get_plugin_size, int(qel_sysmsg_con *, uint32_t, uint64_t *));
    EXPECT_TYPE(qel_sysmsg_reply_plugin_size, int(qel_sysmsg_con *, uint32_t, uint64_t));
    EXPECT_TYPE(qel_sysmsg_decipher, int(qel_sysmsg_con *, const void *, int, const void **, uint32_t *));
    EXPECT_TYPE(qel_sysmsg_reply_plain, int(qel_sysmsg_con *, const void *, int));
}
