-- Wireshark dissector for the framed messages of libvexatool64.
--
-- Load it with  wireshark -X lua_script:tools/wireshark/vexatool.lua  (or
-- tshark the same way), or copy it into the personal Lua plugins folder
-- (~/.local/lib/wireshark/plugins/ on Linux; `tshark -G folders` names it).
-- Messages on the TCP port of the preference "vexatool.port" (default 6000)
-- are dissected; on other ports a heuristic recognises a conversation by its
-- first head. Messages split across segments are reassembled, and a segment
-- may carry several messages.
--
-- One message: a 100-byte head, then the body. Integers are big-endian.
--   0  dev   80 bytes, NUL-padded     88  sec   sender's time, seconds
--  80  item                           92  usec  microseconds
--  84  event                          96  len   body length, 0..511999
--
-- Direction: the end on the preference's port is the host. On other ports the
-- host is learned, per TCP stream, from the first of the library's own events
-- seen there: 9001 and 9002 go to the host, 9003 and 1006 come from it. That
-- holds for a capture started after the registration too; messages before the
-- first such event get no direction rather than a guess.

local HEAD_SIZE = 100
local DEV_SIZE = 80
local MAX_BODY = 511999
local PID_SIZE = 4
local TOKEN_SIZE = 32 -- a launched test's 9001: the pid, then its launch token
local PREVIEW_CHARS = 40

local vexatool = Proto("vexatool", "vexatool framed messages")

local event_names = {
    [9001] = "CONFIG",
    [9002] = "EXIT",
    [9003] = "EXIT_ACK",
    [9005] = "CLOSED",
    [9006] = "OFFLINE",
    [1006] = "DISCONNECTED",
}
local to_host_events = { [9001] = true, [9002] = true }
local to_test_events = { [9003] = true, [1006] = true }

local f_dev = ProtoField.string("vexatool.dev", "Device")
local f_item = ProtoField.int32("vexatool.item", "Test item")
-- No value names: an application's event shows as its number, never "Unknown".
local f_event = ProtoField.int32("vexatool.event", "Event")
local f_sec = ProtoField.int32("vexatool.sec", "Time, seconds")
local f_usec = ProtoField.int32("vexatool.usec", "Time, microseconds")
local f_time = ProtoField.absolute_time("vexatool.time", "Sender's time", base.UTC)
local f_len = ProtoField.int32("vexatool.len", "Body length")
local f_body = ProtoField.bytes("vexatool.body", "Body")
local f_text = ProtoField.string("vexatool.text", "Body as text")
local f_pid = ProtoField.int32("vexatool.pid", "Process id (native byte order)")
local f_token = ProtoField.none("vexatool.launch_token", "Launch token")
local f_direction = ProtoField.string("vexatool.direction", "Direction")
vexatool.fields = { f_dev, f_item, f_event, f_sec, f_usec, f_time, f_len, f_body, f_text, f_pid,
    f_token, f_direction }

local e_bad_len = ProtoExpert.new("vexatool.bad_len", "Body length outside 0..511999: the receiver ends the connection",
    expert.group.MALFORMED, expert.severity.ERROR)
vexatool.experts = { e_bad_len }

vexatool.prefs.port = Pref.uint("TCP port", 6000, "TCP port of the server (other ports: heuristic)")

local tcp_stream = Field.new("tcp.stream")
-- Per TCP stream: the host's end ("address:port") and the frame it was learned in.
local host_ends = {}

function vexatool.init()
    host_ends = {}
end

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

-- "to host" or "to test" and how that is known; nil while it is not. A frame
-- before the one it was learned in stays without, so that a second pass (or a
-- click in the GUI) shows what the first one did.
local function direction(pinfo, event)
    if pinfo.dst_port == vexatool.prefs.port then
        return "to host", "the server's port"
    elseif pinfo.src_port == vexatool.prefs.port then
        return "to test", "the server's port"
    end
    local stream = tcp_stream()
    if stream == nil then
        return nil
    end
    local dst = tostring(pinfo.dst) .. ":" .. pinfo.dst_port
    local learned = host_ends[stream.value]
    if learned == nil and (to_host_events[event] or to_test_events[event]) then
        local host = to_host_events[event] and dst or tostring(pinfo.src) .. ":" .. pinfo.src_port
        learned = { host = host, frame = pinfo.number }
        host_ends[stream.value] = learned
    end
    if learned == nil or pinfo.number < learned.frame then
        return nil
    end
    return learned.host == dst and "to host" or "to test", "learned from the first library event"
end

-- A body reads as text when it holds no control characters but tabs and line
-- ends; one NUL at its end (a C string sent whole) is left out.
local function body_text(body)
    local text = body:sub(-1) == "\0" and body:sub(1, -2) or body
    if text:find("[\0-\8\11\12\14-\31\127]") then
        return nil
    end
    return text
end

local function dissect_message(tvb, pinfo, tree)
    local dev = tvb(0, DEV_SIZE):stringz()
    local item = tvb(80, 4):int()
    local event = tvb(84, 4):int()
    local usec = tvb(92, 4):int()
    local len = body_length(tvb, 0)
    local name = event_names[event]
    local to, known_by = direction(pinfo, event)

    local subtree = tree:add(vexatool, tvb(), "vexatool")
    if to then
        subtree:add(f_direction, to):append_text(" (" .. known_by .. ")"):set_generated()
    end
    subtree:add(f_dev, tvb(0, DEV_SIZE), dev)
    subtree:add(f_item, tvb(80, 4))
    local event_item = subtree:add(f_event, tvb(84, 4))
    if name then
        event_item:append_text(" (" .. name .. ")")
    end
    subtree:add(f_sec, tvb(88, 4))
    subtree:add(f_usec, tvb(92, 4))
    if usec >= 0 and usec < 1000000 then
        -- The seconds are the clock's low 32 bits: unsigned, they read right until 2106.
        subtree:add(f_time, tvb(88, 8), NSTime.new(tvb(88, 4):uint(), usec * 1000)):set_generated()
    end
    local len_item = subtree:add(f_len, tvb(96, 4))

    local detail = ""
    if len < 0 or len > MAX_BODY then
        len_item:add_proto_expert_info(e_bad_len)
    elseif len > 0 then
        local body = tvb(HEAD_SIZE, len)
        subtree:add(f_body, body)
        if event == 9001 and len >= PID_SIZE then
            -- The registration's pid travels in the sender's byte order;
            -- the devices are little-endian.
            local pid = tvb(HEAD_SIZE, PID_SIZE):le_int()
            subtree:add_le(f_pid, tvb(HEAD_SIZE, PID_SIZE))
            detail = " pid=" .. pid
            if len == PID_SIZE + TOKEN_SIZE then
                subtree:add(f_token, tvb(HEAD_SIZE + PID_SIZE, TOKEN_SIZE))
                    :set_text("Launch token: present (32 characters, not shown here)")
                detail = detail .. " with launch token"
            end
        else
            local raw = body:raw()
            local text = body_text(raw)
            if text then
                subtree:add(f_text, body, text)
            end
            detail = ' "' .. (raw:sub(1, PREVIEW_CHARS):gsub("[^\32-\126]", ".")) .. '"'
            if len > PREVIEW_CHARS then
                detail = detail .. "..."
            end
        end
    end

    local summary = string.format("%sdev=%s item=%d event=%s len=%d%s", to and to .. " " or "",
        dev, item, name and string.format("%s(%d)", name, event) or tostring(event), len, detail)
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
