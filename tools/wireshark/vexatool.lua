-- Wireshark dissector for the framed messages of libvexatool64.
--
-- Load it with  wireshark -X lua_script:tools/wireshark/vexatool.lua  (or
-- tshark the same way), or copy it into the personal Lua plugins folder.
-- Messages on the TCP port of the preference "vexatool.port" (default 6000)
-- are dissected; on other ports a heuristic recognises a conversation by its
-- first head. Messages split across segments are reassembled, and a segment
-- may carry several messages.
--
-- One message: a 100-byte head, then the body. Integers are big-endian.
--   0  dev   80 bytes, NUL-padded     88  sec   sender's time, seconds
--  80  item                           92  usec  microseconds
--  84  event                          96  len   body length, 0..511999

local HEAD_SIZE = 100
local DEV_SIZE = 80
local MAX_BODY = 511999

local vexatool = Proto("vexatool", "vexatool framed messages")

local event_names = {
    [9001] = "CONFIG",
    [9002] = "EXIT",
    [9003] = "EXIT_ACK",
    [9005] = "CLOSED",
    [9006] = "OFFLINE",
    [1006] = "DISCONNECTED",
}

local f_dev = ProtoField.string("vexatool.dev", "Device")
local f_item = ProtoField.int32("vexatool.item", "Test item")
local f_event = ProtoField.int32("vexatool.event", "Event", base.DEC, event_names)
local f_sec = ProtoField.int32("vexatool.sec", "Time, seconds")
local f_usec = ProtoField.int32("vexatool.usec", "Time, microseconds")
local f_len = ProtoField.int32("vexatool.len", "Body length")
local f_body = ProtoField.bytes("vexatool.body", "Body")
local f_pid = ProtoField.int32("vexatool.pid", "Process id (native byte order)")
vexatool.fields = { f_dev, f_item, f_event, f_sec, f_usec, f_len, f_body, f_pid }

local e_bad_len = ProtoExpert.new("vexatool.bad_len", "Body length outside 0..511999: the receiver ends the connection",
    expert.group.MALFORMED, expert.severity.ERROR)
vexatool.experts = { e_bad_len }

vexatool.prefs.port = Pref.uint("TCP port", 6000, "TCP port of the server (other ports: heuristic)")

local function body_length(tvb, offset)
    return tvb(offset + 96, 4):int()
end

-- The whole message's length; a refused length counts as a head alone, since
-- nothing after it belongs to a message.
local function message_length(tvb, pinfo, offset)
    local len = body_length(tvb, offset)
    if len < 0 or len > MAX_BODY then
        return HEAD_SIZE
    end
    return HEAD_SIZE + len
end

local function dissect_message(tvb, pinfo, tree)
    local dev = tvb(0, DEV_SIZE):stringz()
    local item = tvb(80, 4):int()
    local event = tvb(84, 4):int()
    local len = body_length(tvb, 0)
    local name = event_names[event]

    local subtree = tree:add(vexatool, tvb(), "vexatool")
    subtree:add(f_dev, tvb(0, DEV_SIZE), dev)
    subtree:add(f_item, tvb(80, 4))
    subtree:add(f_event, tvb(84, 4))
    subtree:add(f_sec, tvb(88, 4))
    subtree:add(f_usec, tvb(92, 4))
    local len_item = subtree:add(f_len, tvb(96, 4))
    if len < 0 or len > MAX_BODY then
        len_item:add_proto_expert_info(e_bad_len)
    elseif len > 0 then
        subtree:add(f_body, tvb(HEAD_SIZE, len))
        if event == 9001 and len >= 4 then
            -- The registration's pid travels in the sender's byte order;
            -- the devices are little-endian.
            subtree:add_le(f_pid, tvb(HEAD_SIZE, 4))
        end
    end

    local summary = string.format("%s dev=%s item=%d len=%d",
        name and string.format("%s(%d)", name, event) or tostring(event), dev, item, len)
    subtree:append_text(": " .. summary)
    pinfo.cols.protocol = "VEXATOOL"
    if tostring(pinfo.cols.info):find("VEXATOOL:", 1, true) then
        pinfo.cols.info:append("; " .. summary)
    else
        pinfo.cols.info = "VEXATOOL: " .. summary
    end
    return tvb:len()
end

function vexatool.dissector(tvb, pinfo, tree)
    return dissect_tcp_pdus(tvb, tree, HEAD_SIZE, message_length, dissect_message, true)
end

-- A head as this library writes it: the device text, a NUL, then only NULs
-- to the end of its field; microseconds below one million; a length the
-- receiver accepts.
local function looks_like_head(tvb)
    if tvb:len() < HEAD_SIZE then
        return false
    end
    local dev = tvb(0, DEV_SIZE):bytes()
    local nul = nil
    for i = 0, DEV_SIZE - 1 do
        local b = dev:get_index(i)
        if nul == nil then
            if b == 0 then
                nul = i
            elseif b < 0x20 then
                return false
            end
        elseif b ~= 0 then
            return false
        end
    end
    local usec = tvb(92, 4):int()
    local len = body_length(tvb, 0)
    return nul ~= nil and usec >= 0 and usec < 1000000 and len >= 0 and len <= MAX_BODY
end

local function heuristic(tvb, pinfo, tree)
    if not looks_like_head(tvb) then
        return false
    end
    -- The rest of this conversation is ours, including segments that start
    -- in the middle of a message.
    pinfo.conversation = vexatool
    vexatool.dissector(tvb, pinfo, tree)
    return true
end

local tcp_port_table = DissectorTable.get("tcp.port")
local registered_port = vexatool.prefs.port
tcp_port_table:add(registered_port, vexatool)
vexatool:register_heuristic("tcp", heuristic)

function vexatool.prefs_changed()
    if registered_port ~= vexatool.prefs.port then
        tcp_port_table:remove(registered_port, vexatool)
        registered_port = vexatool.prefs.port
        tcp_port_table:add(registered_port, vexatool)
    end
end
