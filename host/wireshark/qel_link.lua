-- Wireshark dissector for recordings of the cabinet's host link (link type "USER0"): packets, the messages
-- put together from them in each direction, CRC verdict, names and fields, and which confirm belongs to
-- which message. How to load it: ../README.md.
--
-- First packet                                    Continuation
--   0  4  message length, top bit 0                 0  1  0x80 (only the top bit counts)
--   4  2  CRC-16 of the whole message               1  n  the next bytes of the message
--   6  n  the first bytes of the message            (packet numbers are big-endian, message numbers little)

local qel = Proto("qel", "Host link")
qel.prefs.packet_size = Pref.uint("Largest packet", 35, "Bytes of a full packet, header included")

-- What messages look like: name, "sequenced" or "-", size, largest size, and fields as NAME:KIND:OFFSET:SIZE; a size of
-- 0 varies, or has no limit. Made by "qel-host catalogue --lua", do not edit.
-- catalogue begin
local catalogue = {
    [0] = "unassigned_0 - 0 0",
    [1] = "transfer_begin sequenced 16 0 value:value32:12:4",
    [2] = "transfer_data sequenced 0 0 block:block:12:4",
    [3] = "transfer_end sequenced 12 0",
    [4] = "unassigned_4 sequenced 0 0",
    [5] = "connect - 12 0 value:value32:8:4",
    [6] = "unassigned_6 - 0 0",
    [7] = "file_begin sequenced 0 0 path:text_block:12:4",
    [8] = "file_data sequenced 0 0 block:block:12:4",
    [9] = "file_end sequenced 12 0",
    [10] = "updater - 0 0 block:block:8:4",
    [11] = "notify_11 - 8 0",
    [12] = "notify_12 - 8 0",
    [13] = "get_plugins sequenced 12 0",
    [14] = "plugins sequenced 0 0 plugins:ids:12:4",
    [15] = "confirmed - 12 0 sequence:value8:8:1",
    [16] = "test_pattern - 3120 0 counters:counters:8:4",
    [17] = "test_pattern_sequenced sequenced 3124 0 counters:counters:12:4",
    [18] = "post_18 sequenced 136 0 name:text:9:100",
    [19] = "post_19 sequenced 136 0 name:text:9:100 value:value32:112:4 record:record:116:20",
    [20] = "post_20 sequenced 136 0 name:text:9:100",
    [21] = "post_21 sequenced 16 0 value:value32:12:4",
    [22] = "post_22 sequenced 12 0",
    [23] = "query_23 sequenced 1116 0 name:text:9:100 items:texts:109:1000 count:count:1112:4",
    [24] = "reply_24 sequenced 112 0 text:characters:9:100",
    [25] = "unassigned_25 - 0 0",
    [26] = "notify_26 - 32 0",
    [27] = "notify_27 - 32 0 record:record:9:20",
    [28] = "path_exists sequenced 112 0 path:text:9:100",
    [29] = "reply_path_exists sequenced 16 0 exists:value32:12:4",
    [30] = "notify_30 - 12 0 value:value32:8:4",
    [31] = "notify_31 - 8 0",
    [32] = "post_32 sequenced 44 0 name:text:9:31 value:value32:40:4",
    [33] = "post_33 sequenced 40 0 name:text:9:31",
    [34] = "post_34 sequenced 12 0",
    [35] = "unassigned_35 sequenced 0 0",
    [36] = "get_info sequenced 12 0",
    [37] = "info sequenced 24 0 a:value32:12:4 b:value32:16:4 c:value32:20:4",
    [38] = "connect_answer - 12 0 value:value32:8:4",
    [39] = "get_item_size sequenced 64 0 value:value32:12:4 name:text:16:31 value2:value32:48:4",
    [40] = "item_size sequenced 64 0 value:value32:12:4 name:text:16:31 value2:value32:48:4 item_size:value64:56:8",
    [41] = "query_41 sequenced 12 0",
    [42] = "reply_42 sequenced 32 0 first:value64:16:8 second:value64:24:8",
    [43] = "get_plugin_size sequenced 24 0 plugin_id:value32:12:4",
    [44] = "plugin_size sequenced 24 0 plugin_id:value32:12:4 plugin_size:value64:16:8",
    [45] = "post_45 sequenced 24 0 value:value32:12:4",
    [46] = "get_text sequenced 12 0",
    [47] = "text sequenced 0 528 text:text_block:12:4",
    [48] = "decipher sequenced 0 0 block:block:12:4",
    [49] = "plain sequenced 0 0 block:block:12:4",
}
-- catalogue end

-- ---- Fields ----

local f = {
    first = ProtoField.bool("qel.first", "First packet of a message"),
    length = ProtoField.uint32("qel.length", "Message length"),
    crc = ProtoField.uint16("qel.crc", "Message CRC", base.HEX),
    mark = ProtoField.uint8("qel.mark", "Continuation mark", base.HEX),
    payload = ProtoField.bytes("qel.payload", "Bytes of the message"),
    crc_right = ProtoField.bool("qel.crc_right", "CRC right"),
    message = ProtoField.string("qel.message", "Message"),
    type = ProtoField.uint32("qel.type", "Type"),
    size = ProtoField.uint32("qel.size", "Size"),
    sequence = ProtoField.uint8("qel.sequence", "Number"),
    body = ProtoField.bytes("qel.body", "Body"),
    confirms = ProtoField.framenum("qel.confirms", "Confirms the message in", base.NONE, frametype.REQUEST),
    confirmed_in = ProtoField.framenum("qel.confirmed_in", "Confirmed in", base.NONE, frametype.RESPONSE),
    repeats = ProtoField.framenum("qel.repeats", "Repeats the message in", base.NONE),
    interrupted = ProtoField.framenum("qel.interrupted", "Not complete: the message that began in", base.NONE),
    interrupted_in = ProtoField.framenum("qel.interrupted_in", "Ended early by the packet in", base.NONE),
}

local field_makers = {
    value8 = ProtoField.uint8,
    value32 = ProtoField.uint32,
    value64 = ProtoField.uint64,
    text = ProtoField.string,
    characters = ProtoField.string,
    count = ProtoField.uint32,
    texts = ProtoField.string,
    record = ProtoField.bytes,
    block = ProtoField.bytes,
    text_block = ProtoField.string,
    counters = ProtoField.uint32,
    ids = ProtoField.uint32,
}

-- Kinds that make up the rest of a message, after a 32-bit number; the value is the size of what it counts.
local rest_kinds = { block = 1, text_block = 1, counters = 1, ids = 4 }

-- Reads the catalogue and registers its fields.
local all_fields = {}
for _, field in pairs(f) do
    all_fields[#all_fields + 1] = field
end
for kind, text in pairs(catalogue) do
    local words = text:gmatch("%S+")
    local entry = { name = words(), sequenced = words() == "sequenced", size = tonumber(words()),
                    size_max = tonumber(words()), fields = {} }
    for word in words do
        local name, field_kind, offset, size = word:match("(.+):(.+):(.+):(.+)")
        local field = { name = name, kind = field_kind, offset = tonumber(offset), size = tonumber(size) }
        local full_name = "qel." .. entry.name .. "." .. name
        field.proto = field_makers[field_kind](full_name, name)
        all_fields[#all_fields + 1] = field.proto
        if rest_kinds[field_kind] then
            field.count_proto = ProtoField.uint32(full_name .. "_length", name .. " length")
            all_fields[#all_fields + 1] = field.count_proto
        end
        entry.fields[#entry.fields + 1] = field
    end
    catalogue[kind] = entry
end
qel.fields = all_fields

local all_experts = {}
local function new_expert(name, text, group, severity)
    local made = ProtoExpert.new("qel." .. name, text, expert.group[group], expert.severity[severity])
    all_experts[#all_experts + 1] = made
    return made
end
local shown = {
    crc = new_expert("crc_wrong", "The CRC is wrong: the message is dropped", "CHECKSUM", "ERROR"),
    stray = new_expert("stray", "Continuation without a message", "SEQUENCE", "WARN"),
    interrupts = new_expert("interrupts", "The message before was not complete", "SEQUENCE", "WARN"),
    incomplete = new_expert("incomplete", "Packet of a message that is not complete", "SEQUENCE", "WARN"),
    bad_packet = new_expert("bad_packet", "Packet that breaks the rules of the link", "PROTOCOL", "ERROR"),
    short = new_expert("short_packet", "Not full, although the message goes on", "PROTOCOL", "WARN"),
    message = new_expert("bad_message", "Message that is not as the catalogue has it", "PROTOCOL", "ERROR"),
    unknown = new_expert("unknown_type", "Type that the catalogue does not have", "UNDECODED", "NOTE"),
}
qel.experts = all_experts

-- ---- CRC: polynomial 0x1021, start 0x1D0F ----

local crc_table = {}
for byte = 0, 255 do
    local crc = bit.lshift(byte, 8)
    for _ = 1, 8 do
        crc = bit.lshift(crc, 1)
        if bit.band(crc, 0x10000) ~= 0 then
            crc = bit.bxor(crc, 0x11021)
        end
    end
    crc_table[byte] = crc
end

local function crc16(bytes)
    local crc = 0x1D0F
    for i = 1, #bytes do
        local index = bit.band(bit.bxor(bit.rshift(crc, 8), bytes:byte(i)), 0xFF)
        crc = bit.band(bit.bxor(bit.lshift(crc, 8), crc_table[index]), 0xFFFF)
    end
    return crc
end

-- ---- Putting messages together ----

local frames = {}    -- what was found out about each frame, at its first visit
local progress = {}  -- by direction: the message that is not complete yet
local sequenced = {} -- by direction and number: the frame of the latest message

function qel.init()
    frames, progress, sequenced = {}, {}, {}
end

-- Adds what the packet carries after its header. Every packet but the last is full; where one is not, the
-- receiver takes whatever follows it, here zeros.
local function store(state, packet, header_size)
    local n = math.min(qel.prefs.packet_size - header_size, state.remaining)
    local part = packet:sub(header_size + 1, header_size + n)
    state.parts[#state.parts + 1] = part .. string.rep("\0", n - #part)
    state.remaining = state.remaining - n
    return #part < n
end

-- Finds out what the packet, a string, of frame `number` does.
local function follow(packet, direction, number)
    local info = { header_size = packet:byte(1) < 0x80 and 6 or 1, bad_packet = #packet > qel.prefs.packet_size }
    local state = progress[direction]
    if info.header_size == 6 then
        if state then
            info.interrupts, info.interrupted, state.interrupted_in = true, state.began, number
        end
        local b1, b2, b3, b4, b5, b6 = (packet .. "\0\0\0\0\0"):byte(1, 6)
        state = { remaining = ((b1 * 256 + b2) * 256 + b3) * 256 + b4, crc = b5 * 256 + b6, parts = {}, began = number }
        info.bad_packet = info.bad_packet or #packet <= 6 or state.remaining == 0
        progress[direction] = not info.bad_packet and state or nil
    else
        info.stray = state == nil and not info.bad_packet
    end
    if state and not info.bad_packet then
        info.state = state
        info.short = store(state, packet, info.header_size)
        if state.remaining == 0 then
            info.message = table.concat(state.parts)
            info.crc_right = crc16(info.message) == state.crc
            progress[direction] = nil
        end
    end
    return info
end

local function little32(bytes, offset)
    local b1, b2, b3, b4 = bytes:byte(offset + 1, offset + 4)
    return ((b4 * 256 + b3) * 256 + b2) * 256 + b1
end

-- Returns what breaks the rules of all messages, or nil.
local function broken_rule(bytes)
    if #bytes < 8 then
        return "shorter than a header"
    end
    local size = little32(bytes, 4)
    if size ~= #bytes then
        return "it says that it has " .. size .. " bytes, there are " .. #bytes
    end
    local entry = catalogue[little32(bytes, 0)]
    if entry and entry.sequenced and #bytes < 12 then
        return "too short for a number"
    end
    if entry and entry.sequenced and bytes:byte(9) == 0 then
        return "its number is 0"
    end
    return nil
end

-- Returns why the catalogue does not describe a message, or nil. All fields of one that fits lie inside it.
local function misfit(bytes)
    local entry = catalogue[little32(bytes, 0)]
    if not entry then
        return nil
    end
    if entry.size_max ~= 0 and #bytes > entry.size_max then
        return #bytes .. " bytes, more than " .. entry.size_max
    end
    if entry.size ~= 0 and entry.size ~= #bytes then
        return #bytes .. " bytes instead of " .. entry.size
    end
    local rest = entry.fields[#entry.fields]
    if rest and rest_kinds[rest.kind] then
        local head = rest.offset + rest.size
        if #bytes < head or little32(bytes, rest.offset) * rest_kinds[rest.kind] ~= #bytes - head then
            return "the length of its " .. rest.name .. " is wrong"
        end
    end
    return nil
end

-- Remembers which frame ended which sequenced message, and finds it again at the confirm.
local function link_confirm(info, number, direction)
    local kind = little32(info.message, 0)
    local entry = catalogue[kind]
    if not entry then
        return
    end
    if entry.sequenced then
        local key = direction .. "/" .. info.message:byte(9)
        local before = sequenced[key]
        if before and frames[before].message == info.message and not frames[before].confirmed_in then
            info.repeats = before
        end
        sequenced[key] = number
    elseif entry.name == "confirmed" then
        local other = direction == P2P_DIR_SENT and P2P_DIR_RECV or P2P_DIR_SENT
        info.confirms = sequenced[other .. "/" .. info.message:byte(9)]
        if info.confirms then
            frames[info.confirms].confirmed_in = number
        end
    end
end

-- ---- Showing ----

local function up_to_nul(range)
    return (range:raw():match("^[^%z]*"))
end

-- A list shows as a field for each entry.
local list_kinds = { counters = true, ids = true }

local function show_field(tree, tvb, field)
    local range = tvb(field.offset, field.size)
    if field.count_proto then
        tree:add_le(field.count_proto, range)
        if tvb:len() == field.offset + field.size then
            return
        end
        range = tvb(field.offset + field.size)
    end
    if field.kind == "text" or field.kind == "characters" or field.kind == "text_block" then
        tree:add(field.proto, range, up_to_nul(range))
    elseif field.kind == "texts" then
        local count = math.min(tvb(math.ceil((field.offset + field.size) / 4) * 4, 4):le_uint(), field.size / 100)
        for i = 0, count - 1 do
            tree:add(field.proto, range(i * 100, 100), up_to_nul(range(i * 100, 100)))
        end
    elseif list_kinds[field.kind] then
        for offset = 0, range:len() - 4, 4 do
            tree:add_le(field.proto, range(offset, 4))
        end
    elseif field.kind == "block" or field.kind == "record" then
        tree:add(field.proto, range)
    else
        tree:add_le(field.proto, range)
    end
end

-- What the catalogue does not describe is shown as it is.
local function show_body(tree, tvb, entry)
    local offset = tvb:len() < 8 and 0 or entry and entry.sequenced and 12 or 8
    if tvb:len() > offset then
        tree:add(f.body, tvb(offset))
    end
end

local function show_head(tree, tvb, entry)
    if tvb:len() >= 8 then
        tree:add_le(f.type, tvb(0, 4))
        tree:add_le(f.size, tvb(4, 4))
    end
    if entry and entry.sequenced and tvb:len() > 8 then
        tree:add(f.sequence, tvb(8, 1))
    end
end

local function show_message(tree, info)
    local tvb = ByteArray.new(info.message, true):tvb("Message")
    local entry = #info.message >= 4 and catalogue[little32(info.message, 0)] or nil
    local name = entry and entry.name or "unknown"
    local message = tree:add(f.message, tvb(), name)
    local problem = broken_rule(info.message) or misfit(info.message)
    show_head(message, tvb, entry)
    if problem then
        message:add_proto_expert_info(shown.message, "Message that is not as the catalogue has it: " .. problem)
    elseif not entry then
        message:add_proto_expert_info(shown.unknown)
    end
    if problem or not entry or entry.size == 0 and #entry.fields == 0 then
        show_body(message, tvb, entry)
    else
        for _, field in ipairs(entry.fields) do
            show_field(message, tvb, field)
        end
    end
    for _, link in ipairs({ "confirms", "confirmed_in", "repeats" }) do
        if info[link] then
            message:add(f[link], info[link]):set_generated()
        end
    end
    if entry and entry.sequenced and #info.message > 8 then
        name = name .. " number " .. info.message:byte(9)
    end
    return name
end

local function show_packet(tree, tvb, info)
    tree:add(f.first, info.header_size == 6):set_generated()
    if tvb:len() < info.header_size then
        return
    end
    if info.header_size == 6 then
        tree:add(f.length, tvb(0, 4))
        tree:add(f.crc, tvb(4, 2))
    else
        tree:add(f.mark, tvb(0, 1))
    end
    if tvb:len() > info.header_size then
        tree:add(f.payload, tvb(info.header_size))
    end
end

local direction_names = { [P2P_DIR_SENT] = "out", [P2P_DIR_RECV] = "in" }

function qel.dissector(tvb, pinfo, root)
    pinfo.cols.protocol = "QEL"
    if tvb:len() == 0 then
        return 0
    end
    local info = frames[pinfo.number]
    if not info then
        info = follow(tvb:raw(), pinfo.p2p_dir, pinfo.number)
        frames[pinfo.number] = info
        if info.crc_right and not broken_rule(info.message) then
            link_confirm(info, pinfo.number, pinfo.p2p_dir)
        end
    end

    local tree = root:add(qel, tvb())
    show_packet(tree, tvb, info)
    for _, flag in ipairs({ "stray", "interrupts", "bad_packet", "short" }) do
        if info[flag] then
            tree:add_proto_expert_info(shown[flag])
        end
    end
    if info.interrupted then
        tree:add(f.interrupted, info.interrupted):set_generated()
    end
    local summary = info.header_size == 6 and "First packet" or "Continuation"
    -- At a second visit it is known what has come of the message.
    if pinfo.visited and info.state and info.state.remaining > 0 then
        tree:add_proto_expert_info(shown.incomplete)
        if info.state.interrupted_in then
            tree:add(f.interrupted_in, info.state.interrupted_in):set_generated()
        end
        summary = summary .. " of a message that is not complete"
    end
    if info.message then
        tree:add(f.crc_right, info.crc_right):set_generated()
        if info.crc_right then
            summary = show_message(tree, info)
        else
            tree:add_proto_expert_info(shown.crc)
            summary = "CRC wrong"
        end
    end
    pinfo.cols.info = (direction_names[pinfo.p2p_dir] or "?") .. " " .. summary
    return tvb:len()
end

DissectorTable.get("wtap_encap"):add(wtap_encaps.USER0, qel)
