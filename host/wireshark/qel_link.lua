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

-- What messages look like: made by "qel-host catalogue --lua", do not edit.
-- catalogue begin
local catalogue = {
    [0] = { name = "unassigned_0", sequenced = false, size = 0, size_max = 0, fields = {} },
    [1] = { name = "transfer_begin", sequenced = true, size = 16, size_max = 0, fields = {
        { name = "value", offset = 12, size = 4, kind = "value32" },
    } },
    [2] = { name = "transfer_data", sequenced = true, size = 0, size_max = 0, fields = {
        { name = "block", offset = 12, size = 4, kind = "block" },
    } },
    [3] = { name = "transfer_end", sequenced = true, size = 12, size_max = 0, fields = {} },
    [4] = { name = "unassigned_4", sequenced = true, size = 0, size_max = 0, fields = {} },
    [5] = { name = "connect", sequenced = false, size = 12, size_max = 0, fields = {
        { name = "value", offset = 8, size = 4, kind = "value32" },
    } },
    [6] = { name = "unassigned_6", sequenced = false, size = 0, size_max = 0, fields = {} },
    [7] = { name = "file_begin", sequenced = true, size = 0, size_max = 0, fields = {
        { name = "path", offset = 12, size = 4, kind = "text_block" },
    } },
    [8] = { name = "file_data", sequenced = true, size = 0, size_max = 22066, fields = {
        { name = "block", offset = 12, size = 4, kind = "block" },
    } },
    [9] = { name = "file_end", sequenced = true, size = 12, size_max = 0, fields = {} },
    [10] = { name = "updater", sequenced = false, size = 0, size_max = 0, fields = {
        { name = "block", offset = 8, size = 4, kind = "block" },
    } },
    [11] = { name = "notify_11", sequenced = false, size = 8, size_max = 0, fields = {} },
    [12] = { name = "notify_12", sequenced = false, size = 8, size_max = 0, fields = {} },
    [13] = { name = "get_plugins", sequenced = true, size = 12, size_max = 0, fields = {} },
    [14] = { name = "plugins", sequenced = true, size = 0, size_max = 0, fields = {
        { name = "plugins", offset = 12, size = 4, kind = "ids" },
    } },
    [15] = { name = "confirmed", sequenced = false, size = 12, size_max = 0, fields = {
        { name = "sequence", offset = 8, size = 1, kind = "value8" },
    } },
    [16] = { name = "test_pattern", sequenced = false, size = 3120, size_max = 0, fields = {
        { name = "counters", offset = 8, size = 4, kind = "counters" },
    } },
    [17] = { name = "test_pattern_sequenced", sequenced = true, size = 3124, size_max = 0, fields = {
        { name = "counters", offset = 12, size = 4, kind = "counters" },
    } },
    [18] = { name = "post_18", sequenced = true, size = 136, size_max = 0, fields = {
        { name = "name", offset = 9, size = 100, kind = "text" },
    } },
    [19] = { name = "post_19", sequenced = true, size = 136, size_max = 0, fields = {
        { name = "name", offset = 9, size = 100, kind = "text" },
        { name = "value", offset = 112, size = 4, kind = "value32" },
        { name = "record", offset = 116, size = 20, kind = "record" },
    } },
    [20] = { name = "post_20", sequenced = true, size = 136, size_max = 0, fields = {
        { name = "name", offset = 9, size = 100, kind = "text" },
    } },
    [21] = { name = "post_21", sequenced = true, size = 16, size_max = 0, fields = {
        { name = "value", offset = 12, size = 4, kind = "value32" },
    } },
    [22] = { name = "post_22", sequenced = true, size = 12, size_max = 0, fields = {} },
    [23] = { name = "query_23", sequenced = true, size = 1116, size_max = 0, fields = {
        { name = "name", offset = 9, size = 100, kind = "text" },
        { name = "items", offset = 109, size = 1000, kind = "texts" },
        { name = "count", offset = 1112, size = 4, kind = "count" },
    } },
    [24] = { name = "reply_24", sequenced = true, size = 112, size_max = 0, fields = {
        { name = "text", offset = 9, size = 100, kind = "characters" },
    } },
    [25] = { name = "unassigned_25", sequenced = false, size = 0, size_max = 0, fields = {} },
    [26] = { name = "notify_26", sequenced = false, size = 32, size_max = 0, fields = {} },
    [27] = { name = "notify_27", sequenced = false, size = 32, size_max = 0, fields = {
        { name = "record", offset = 9, size = 20, kind = "record" },
    } },
    [28] = { name = "path_exists", sequenced = true, size = 112, size_max = 0, fields = {
        { name = "path", offset = 9, size = 100, kind = "text" },
    } },
    [29] = { name = "reply_path_exists", sequenced = true, size = 16, size_max = 0, fields = {
        { name = "exists", offset = 12, size = 4, kind = "value32" },
    } },
    [30] = { name = "notify_30", sequenced = false, size = 12, size_max = 0, fields = {
        { name = "value", offset = 8, size = 4, kind = "value32" },
    } },
    [31] = { name = "notify_31", sequenced = false, size = 8, size_max = 0, fields = {} },
    [32] = { name = "post_32", sequenced = true, size = 44, size_max = 0, fields = {
        { name = "name", offset = 9, size = 31, kind = "text" },
        { name = "value", offset = 40, size = 4, kind = "value32" },
    } },
    [33] = { name = "post_33", sequenced = true, size = 40, size_max = 0, fields = {
        { name = "name", offset = 9, size = 31, kind = "text" },
    } },
    [34] = { name = "post_34", sequenced = true, size = 12, size_max = 0, fields = {} },
    [35] = { name = "unassigned_35", sequenced = true, size = 0, size_max = 0, fields = {} },
    [36] = { name = "get_info", sequenced = true, size = 12, size_max = 0, fields = {} },
    [37] = { name = "info", sequenced = true, size = 24, size_max = 0, fields = {
        { name = "a", offset = 12, size = 4, kind = "value32" },
        { name = "b", offset = 16, size = 4, kind = "value32" },
        { name = "c", offset = 20, size = 4, kind = "value32" },
    } },
    [38] = { name = "connect_answer", sequenced = false, size = 12, size_max = 0, fields = {
        { name = "value", offset = 8, size = 4, kind = "value32" },
    } },
    [39] = { name = "get_item_size", sequenced = true, size = 64, size_max = 0, fields = {
        { name = "value", offset = 12, size = 4, kind = "value32" },
        { name = "name", offset = 16, size = 31, kind = "text" },
        { name = "value2", offset = 48, size = 4, kind = "value32" },
    } },
    [40] = { name = "item_size", sequenced = true, size = 64, size_max = 0, fields = {
        { name = "value", offset = 12, size = 4, kind = "value32" },
        { name = "name", offset = 16, size = 31, kind = "text" },
        { name = "value2", offset = 48, size = 4, kind = "value32" },
        { name = "item_size", offset = 56, size = 8, kind = "value64" },
    } },
    [41] = { name = "query_41", sequenced = true, size = 12, size_max = 0, fields = {} },
    [42] = { name = "reply_42", sequenced = true, size = 32, size_max = 0, fields = {
        { name = "first", offset = 16, size = 8, kind = "value64" },
        { name = "second", offset = 24, size = 8, kind = "value64" },
    } },
    [43] = { name = "get_plugin_size", sequenced = true, size = 24, size_max = 0, fields = {
        { name = "plugin_id", offset = 12, size = 4, kind = "value32" },
    } },
    [44] = { name = "plugin_size", sequenced = true, size = 24, size_max = 0, fields = {
        { name = "plugin_id", offset = 12, size = 4, kind = "value32" },
        { name = "plugin_size", offset = 16, size = 8, kind = "value64" },
    } },
    [45] = { name = "post_45", sequenced = true, size = 24, size_max = 0, fields = {
        { name = "value", offset = 12, size = 4, kind = "value32" },
    } },
    [46] = { name = "get_text", sequenced = true, size = 12, size_max = 0, fields = {} },
    [47] = { name = "text", sequenced = true, size = 0, size_max = 528, fields = {
        { name = "text", offset = 12, size = 4, kind = "text_block" },
    } },
    [48] = { name = "decipher", sequenced = true, size = 0, size_max = 0, fields = {
        { name = "block", offset = 12, size = 4, kind = "block" },
    } },
    [49] = { name = "plain", sequenced = true, size = 0, size_max = 0, fields = {
        { name = "block", offset = 12, size = 4, kind = "block" },
    } },
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

-- Kinds that make up the rest of a message, behind a 32-bit number; the value says how much one of it is.
local rest_kinds = { block = 1, text_block = 1, counters = 1, ids = 4 }

local all_fields = {}
for _, field in pairs(f) do
    all_fields[#all_fields + 1] = field
end
for _, message in pairs(catalogue) do
    for _, field in ipairs(message.fields) do
        local name = "qel." .. message.name .. "." .. field.name
        field.proto = field_makers[field.kind](name, field.name)
        all_fields[#all_fields + 1] = field.proto
        if rest_kinds[field.kind] then
            field.count_proto = ProtoField.uint32(name .. "_length", field.name .. " length")
            all_fields[#all_fields + 1] = field.count_proto
        end
    end
end
qel.fields = all_fields

local expert = {
    crc = ProtoExpert.new("qel.crc_wrong", "The CRC is wrong: the message is dropped",
                          expert.group.CHECKSUM, expert.severity.ERROR),
    stray = ProtoExpert.new("qel.stray", "Continuation without a message",
                            expert.group.SEQUENCE, expert.severity.WARN),
    interrupts = ProtoExpert.new("qel.interrupts", "The message before was not complete",
                                 expert.group.SEQUENCE, expert.severity.WARN),
    incomplete = ProtoExpert.new("qel.incomplete", "Packet of a message that is not complete",
                                 expert.group.SEQUENCE, expert.severity.WARN),
    packet = ProtoExpert.new("qel.bad_packet", "Packet that breaks the rules of the link",
                             expert.group.PROTOCOL, expert.severity.ERROR),
    short = ProtoExpert.new("qel.short_packet", "Not full, although the message goes on",
                            expert.group.PROTOCOL, expert.severity.WARN),
    message = ProtoExpert.new("qel.bad_message", "Message that is not as the catalogue has it",
                              expert.group.PROTOCOL, expert.severity.ERROR),
    unknown = ProtoExpert.new("qel.unknown_type", "Type that the catalogue does not have",
                              expert.group.UNDECODED, expert.severity.NOTE),
}
qel.experts = { expert.crc, expert.stray, expert.interrupts, expert.incomplete, expert.packet, expert.short,
                expert.message, expert.unknown }

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

-- Adds what the packet carries behind its header. Every packet but the last is full; where one is not, the
-- receiver takes what it finds behind it, here zeros.
local function store(state, packet, header_size)
    local n = math.min(qel.prefs.packet_size - header_size, state.remaining)
    local part = packet:sub(header_size + 1, header_size + n)
    state.parts[#state.parts + 1] = part .. string.rep("\0", n - #part)
    state.remaining = state.remaining - n
    return #part < n
end

-- Finds out what the packet, a string, of frame `number` does.
local function follow(packet, direction, number)
    local info = {}
    if packet:byte(1) < 0x80 then
        info.interrupts = progress[direction] ~= nil
        if info.interrupts then
            info.interrupted = progress[direction].began
            progress[direction].interrupted_in = number
        end
        if #packet <= 6 then
            info.bad_packet = true
            progress[direction] = nil
            return info
        end
        local b1, b2, b3, b4, b5, b6 = packet:byte(1, 6)
        progress[direction] = { remaining = ((b1 * 256 + b2) * 256 + b3) * 256 + b4, crc = b5 * 256 + b6, parts = {},
                                began = number }
        info.header_size = 6
        if progress[direction].remaining == 0 then
            info.bad_packet = true
            progress[direction] = nil
            return info
        end
    else
        info.header_size = 1
        info.stray = progress[direction] == nil
    end
    info.bad_packet = #packet > qel.prefs.packet_size
    if info.bad_packet and info.header_size == 6 then
        progress[direction] = nil
    end
    local state = progress[direction]
    if not info.bad_packet and state then
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
    local offset = entry and entry.sequenced and 12 or 8
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

-- Returns what is wrong with a message that travelled well, or nil.
local function problem_of(bytes)
    return broken_rule(bytes) or misfit(bytes)
end

local function show_message(tree, info)
    local tvb = ByteArray.new(info.message, true):tvb("Message")
    local entry = #info.message >= 4 and catalogue[little32(info.message, 0)] or nil
    local name = entry and entry.name or "unknown"
    local message = tree:add(f.message, tvb(), name)
    local problem = problem_of(info.message)
    show_head(message, tvb, entry)
    if problem then
        message:add_proto_expert_info(expert.message, "Message that is not as the catalogue has it: " .. problem)
    elseif not entry then
        message:add_proto_expert_info(expert.unknown)
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
    if not info.header_size then
        return
    end
    tree:add(f.first, info.header_size == 6):set_generated()
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
    for flag, shown in pairs({ stray = expert.stray, interrupts = expert.interrupts, bad_packet = expert.packet,
                               short = expert.short }) do
        if info[flag] then
            tree:add_proto_expert_info(shown)
        end
    end
    if info.interrupted then
        tree:add(f.interrupted, info.interrupted):set_generated()
    end
    local summary = info.header_size == 6 and "First packet" or "Continuation"
    -- At a second visit it is known what has come of the message.
    if pinfo.visited and info.state and info.state.remaining > 0 then
        tree:add_proto_expert_info(expert.incomplete)
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
            tree:add_proto_expert_info(expert.crc)
            summary = "CRC wrong"
        end
    end
    pinfo.cols.info = (direction_names[pinfo.p2p_dir] or "?") .. " " .. summary
    return tvb:len()
end

DissectorTable.get("wtap_encap"):add(wtap_encaps.USER0, qel)
