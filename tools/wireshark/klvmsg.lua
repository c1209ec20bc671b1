-- Dissector for Wireshark and tshark: the typed messages that processes exchange on a TCP
-- connection. A message is the length of its type's name (4 bytes), the name, and a body.
--
-- Nothing on the wire tells how long a body is. Rules, a preference, tell it for each type. Where
-- there is none, everything up to the end of the stream's direction is that body. A header that
-- cannot be one is marked as out of step, and so is all that follows in its direction: that is how
-- a body looks that was read too far or not far enough.
--
-- A rule may also say that a body is a message of Protocol Buffers; Wireshark's own dissector shows
-- its fields then. Or that a body is a question or an answer: the two then name each other's frame.

local klvmsg = Proto("klvmsg", "KLVMsg Typed Messages")

local f_name_length = ProtoField.uint32("klvmsg.name_length", "Name length")
local f_type = ProtoField.string("klvmsg.type", "Type")
local f_body = ProtoField.bytes("klvmsg.body", "Body")
local f_body_length = ProtoField.uint32("klvmsg.body_length", "Body length")
local f_rest = ProtoField.bytes("klvmsg.rest", "Body, further on")
local f_lost = ProtoField.bytes("klvmsg.out_of_step", "Out of step")
local f_call = ProtoField.uint64("klvmsg.call", "Question's number")
local f_answer_in = ProtoField.framenum("klvmsg.answer_in", "Answer in", base.NONE, frametype.RESPONSE)
local f_question_in = ProtoField.framenum("klvmsg.question_in", "Question in", base.NONE,
                                          frametype.REQUEST)
local f_answer_time = ProtoField.relative_time("klvmsg.answer_time", "Answered after")
klvmsg.fields = { f_name_length, f_type, f_body, f_body_length, f_rest, f_lost,
                  f_call, f_answer_in, f_question_in, f_answer_time }

local e_lost = ProtoExpert.new("klvmsg.out_of_step.expert", "Out of step",
                               expert.group.MALFORMED, expert.severity.ERROR)
local e_no_rule = ProtoExpert.new("klvmsg.no_rule", "No rule for this type",
                                  expert.group.UNDECODED, expert.severity.NOTE)
local e_bad_rule = ProtoExpert.new("klvmsg.bad_rule", "Rule not understood",
                                   expert.group.PROTOCOL, expert.severity.WARN)
local e_name_length = ProtoExpert.new("klvmsg.name_length.impossible", "No name has this length",
                                      expert.group.MALFORMED, expert.severity.ERROR)
local e_body_length = ProtoExpert.new("klvmsg.body_length.impossible", "No body has this length",
                                      expert.group.MALFORMED, expert.severity.ERROR)
klvmsg.experts = { e_lost, e_no_rule, e_bad_rule, e_name_length, e_body_length }

-- Preferences -------------------------------------------------------------------------------------

local LITTLE, BIG = 1, 2

klvmsg.prefs.ports = Pref.range("TCP ports", "", "Ports whose connections carry messages", 65535)
klvmsg.prefs.rules = Pref.string("Body rules", "",
    "TYPE=SIZE or TYPE=length(OFFSET,WIDTH,little|big[,MORE]), either followed by " ..
    "protobuf(MESSAGE) where the rest of the body is one, separated by semicolons; * is any type. " ..
    "Behind length(0,WIDTH,ORDER) stands call where a question's number follows. Or @FILE, which " ..
    "has them")
klvmsg.prefs.order = Pref.enum("Byte order of the name length", LITTLE,
    "The byte order of the hosts that talk",
    { { 1, "little endian", LITTLE }, { 2, "big endian", BIG } }, false)
klvmsg.prefs.max_name = Pref.uint("Longest type name", 255,
    "A longer one is taken for a sign that the stream is out of step")
klvmsg.prefs.max_body = Pref.uint("Largest body", 64 * 1024 * 1024,
    "A larger length field is taken for a sign that the stream is out of step")

local rules, bad_rules = {}, {}

-- What the body is made of, as the end of a rule tells it: the rule without that, and the name of the
-- message; an empty one is that of the type.
local function parse_content(text)
    local form, name = text:match("^(.-)%s+protobuf%(%s*([%w_.]*)%s*%)$")
    return form or text, name
end

local function parse_size(text)
    local size = text:match("^%d+$")
    if size then
        return { size = tonumber(size) }
    end
    local offset, width, order, more =
        text:match("^length%(%s*(%d+)%s*,%s*([1248])%s*,%s*(%a+)%s*,?%s*(%d*)%s*%)$")
    if order ~= "little" and order ~= "big" then
        return nil
    end
    return { offset = tonumber(offset), width = tonumber(width), big = order == "big",
             more = tonumber(more) or 0 }
end

local function parse_rule(text)
    local form, message = parse_content(text)
    local length = form:match("^(.-)%s+call$")
    local rule = parse_size(length or form)
    if rule and length and (rule.size or rule.offset ~= 0 or rule.more ~= 0) then
        return nil
    end
    if rule then
        rule.message = message
        rule.call = length ~= nil
    end
    return rule
end

-- The rules of a file, with semicolons between them: a line has rules, is a comment, or tells
-- other programs how to decode bodies. Nil when it cannot be read.
local function read_rules(path)
    local file = io.open(path)
    if not file then
        return nil
    end
    local found = {}
    for line in file:lines() do
        local word = line:match("^%s*(%S*)")
        if word:sub(1, 1) ~= "#" and word ~= "decode" and word ~= "proto" and word ~= "text" then
            found[#found + 1] = line
        end
    end
    file:close()
    return table.concat(found, ";")
end

local function parse_rules(text)
    rules, bad_rules = {}, {}
    local path = text:match("^%s*@%s*(.-)%s*$")
    if path then
        text = read_rules(path)
        if not text then
            bad_rules = { "@" .. path }
            return
        end
    end
    for item in text:gmatch("[^;]+") do
        item = item:match("^%s*(.-)%s*$")
        local name, value = item:match("^(.+)=%s*(.-)$")
        local rule = value and parse_rule(value)
        if rule then
            rules[name:match("^(.-)%s*$")] = rule
        elseif item ~= "" then
            bad_rules[#bad_rules + 1] = item
        end
    end
end

local tcp_port = DissectorTable.get("tcp.port")
local registered = ""
tcp_port:add_for_decode_as(klvmsg)

function klvmsg.prefs_changed()
    parse_rules(klvmsg.prefs.rules)
    if registered ~= klvmsg.prefs.ports then
        if registered ~= "" then
            tcp_port:remove(registered, klvmsg)
        end
        if klvmsg.prefs.ports ~= "" then
            tcp_port:add(klvmsg.prefs.ports, klvmsg)
        end
        registered = klvmsg.prefs.ports
    end
end

-- Streams -----------------------------------------------------------------------------------------

local tcp_stream = Field.new("tcp.stream")

-- The directions whose messages have come to an end before the stream did: by the number of the
-- connection and the sender's port, the frame in which that happened and what all later bytes are.
local ended = {}

-- By connection, port of who asks and number: the frames of a question and of its answer, with their
-- times.
local calls = {}

function klvmsg.init()
    ended = {}
    calls = {}
end

local function direction(pinfo)
    local stream = tcp_stream()
    return string.format("%s/%s:%d", stream and stream.value or "?", tostring(pinfo.src),
                         pinfo.src_port)
end

-- The first frame counts: a capture is dissected once in order, and later frame by frame.
local function end_messages(pinfo, what)
    local key = direction(pinfo)
    if not ended[key] then
        ended[key] = { frame = pinfo.number, what = what }
    end
end

-- Messages ----------------------------------------------------------------------------------------

-- More bytes are needed from `start` on; a negative number tells TCP to ask again with each segment.
local function ask_for(pinfo, start, missing)
    pinfo.desegment_offset = start
    pinfo.desegment_len = missing or DESEGMENT_ONE_MORE_SEGMENT
end

-- `length` is a length that cannot be, if that is why: its bytes, and the expert info that tells of it.
local function show_lost(tvb, start, pinfo, tree, why, length)
    local range = tvb(start)
    local item = tree:add(klvmsg, range, "KLVMsg, out of step")
    item:add(f_lost, range)
    item:add_proto_expert_info(e_lost, "Out of step: " .. why)
    if length then
        item:add(length.range, "Impossible: " .. why):add_proto_expert_info(length.expert, why)
    end
    end_messages(pinfo, "lost")
    return "out of step: " .. why
end

-- Nil when the bytes of a name are printable as far as they have come; otherwise the reason.
local function unprintable(tvb, start, length)
    for i = start, math.min(start + length, tvb:len()) - 1 do
        local byte = tvb(i, 1):uint()
        if byte < 0x20 or byte == 0x7f then
            return string.format("the type name has the byte 0x%02x", byte)
        end
    end
    return nil
end

local function length_field(range, rule)
    if rule.width == 8 then
        local value = rule.big and range:uint64() or range:le_uint64()
        -- By way of its digits, since Lua 5.4 tells integers from other numbers and wants one here.
        return value > UInt64.new(0xffffffff) and math.huge or tonumber(tostring(value))
    end
    return rule.big and range:uint() or range:le_uint()
end

-- The size of the body at `start`; or nil and how many of its bytes are needed to tell; or, when it
-- is larger than a body can be, that size and true.
local function body_size(tvb, start, rule)
    if rule.size then
        return rule.size, rule.size > klvmsg.prefs.max_body
    end
    local needed = rule.offset + rule.width
    if tvb:len() - start < needed then
        return nil, needed
    end
    local size = needed + length_field(tvb(start + rule.offset, rule.width), rule) +
                 rule.more
    return size, size > klvmsg.prefs.max_body
end

local protobuf = Dissector.get("protobuf")

local NUMBER = 8  -- bytes

-- Shows the number at the head of a call's body, and the frame of what belongs to it. Returns "question"
-- or "answer" with the number, if it has one.
local function dissect_call(range, rule, pinfo, item)
    local value = rule.big and range:uint64() or range:le_uint64()
    local is_answer = value:rshift(63) ~= UInt64.new(0)
    local number = value:band(UInt64.new(0xffffffff, 0x7fffffff))
    item:add(f_call, range, number)
    if value == UInt64.new(0) then
        return ""
    end
    local stream = tcp_stream()
    local key = string.format("%s/%d/%s", stream and stream.value or "?",
                              is_answer and pinfo.dst_port or pinfo.src_port, tostring(number))
    local call = calls[key] or {}
    calls[key] = call
    local own = is_answer and "answer" or "question"
    if not call[own] then
        call[own], call[own .. "_time"] = pinfo.number, pinfo.abs_ts
    end
    if is_answer and call.question then
        item:add(f_question_in, call.question):set_generated()
        local took = call.answer_time - call.question_time
        item:add(f_answer_time, NSTime.new(math.floor(took), math.floor(took % 1 * 1e9 + 0.5)))
            :set_generated()
    elseif call.answer and not is_answer then
        item:add(f_answer_in, call.answer):set_generated()
    end
    return string.format(", %s %s", own, tostring(number))
end

-- Hands what stands behind the length, or all of a body of fixed size, to another dissector.
local function dissect_content(body, name, rule, pinfo, item)
    local start = rule.size and 0 or rule.offset + rule.width + (rule.call and NUMBER or 0)
    if protobuf and rule.message and start < body:len() then
        local message = rule.message == "" and name or rule.message
        pinfo.private["pb_msg_type"] = "message," .. message
        protobuf:call(body(start):tvb(), pinfo, item)
        pinfo.cols.protocol = "KLVMSG"
    end
end

-- Dissects the message at `start`. Returns the offset behind it and a word for the packet list, or
-- nil when more bytes have been asked for.
local function dissect_message(tvb, start, pinfo, tree)
    local available = tvb:len() - start
    if available < 4 then
        return ask_for(pinfo, start)
    end
    local field = tvb(start, 4)
    local length = klvmsg.prefs.order == BIG and field:uint() or field:le_uint()
    if length == 0 or length > klvmsg.prefs.max_name then
        return tvb:len(), show_lost(tvb, start, pinfo, tree,
                                    string.format("a type name of %u bytes", length),
                                    { range = field, expert = e_name_length })
    end
    local why = unprintable(tvb, start + 4, length)
    if why then
        return tvb:len(), show_lost(tvb, start, pinfo, tree, why)
    end
    if available < 4 + length then
        return ask_for(pinfo, start)
    end

    local name = tvb(start + 4, length):string(ENC_UTF_8)
    local body = start + 4 + length
    local rule = rules[name] or rules["*"]
    local size, too_large = tvb:len() - body, false
    if rule then
        size, too_large = body_size(tvb, body, rule)
        if not size then
            return ask_for(pinfo, start)
        end
        if too_large then
            local place = rule.size and tvb(start) or tvb(body + rule.offset, rule.width)
            return tvb:len(), show_lost(tvb, start, pinfo, tree,
                                        string.format("a body of %s with %.0f bytes", name, size),
                                        { range = place, expert = e_body_length })
        end
        if body + size > tvb:len() then
            return ask_for(pinfo, start, body + size - tvb:len())
        end
    end

    local item = tree:add(klvmsg, tvb(start, body + size - start),
                          string.format("KLVMsg, %s, body of %d bytes%s", name, size,
                                        rule and "" or " and more"))
    item:add(f_name_length, field, length)
    item:add(f_type, tvb(start + 4, length), name)
    if rule then
        item:add(f_body_length, tvb(body, size), size):set_generated()
    end
    if size > 0 then
        item:add(f_body, tvb(body, size))
    end
    local call = ""
    if rule and rule.call and size >= rule.width + NUMBER then
        call = dissect_call(tvb(body + rule.width, NUMBER), rule, pinfo, item)
        item:append_text(call)
    end
    if rule and size > 0 then
        dissect_content(tvb(body, size), name, rule, pinfo, item)
    end
    if not rule then
        item:add_proto_expert_info(e_no_rule, "No rule for " .. name ..
                                   ": its body is shown up to the end of the stream")
        end_messages(pinfo, name)
    end
    return body + size, rule and name .. call or name .. " (no rule)"
end

-- The bytes behind the point where the messages of a direction ended.
local function dissect_rest(tvb, pinfo, tree, what)
    local lost = what == "lost"
    local item = tree:add(klvmsg, tvb(), lost and "KLVMsg, out of step" or
                                         "KLVMsg, body of " .. what .. ", further on")
    item:add(lost and f_lost or f_rest, tvb())
    return lost and "out of step" or "body of " .. what
end

function klvmsg.dissector(tvb, pinfo, tree)
    pinfo.cols.protocol = "KLVMSG"
    local words = {}
    for _, rule in ipairs(bad_rules) do  -- before all else, in the list of packets as in each packet
        local text = "Rule not understood: " .. rule
        tree:add(klvmsg, tvb(0, 0), text):add_proto_expert_info(e_bad_rule, text)
        words[#words + 1] = text
    end
    local over = ended[direction(pinfo)]
    if over and over.frame < pinfo.number then
        words[#words + 1] = dissect_rest(tvb, pinfo, tree, over.what)
    else
        local offset = 0
        while offset and offset < tvb:len() do
            local word
            offset, word = dissect_message(tvb, offset, pinfo, tree)
            words[#words + 1] = word
        end
    end
    if #words > 0 then
        pinfo.cols.info = table.concat(words, ", ")
    end
    return tvb:len()
end
