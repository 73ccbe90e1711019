-- Shows recordings of pegeir processes in Wireshark and tshark.
--
--   tshark -X lua_script:pegeir.lua -r FILE         one line a packet; -V for all there is
--   tshark -2 ...                                   requests then know their acknowledgements, too
--
-- Or put this file into the folder of personal Lua plugins (Help, About Wireshark, Folders).
--
-- The file has four parts: the names of the numbers, the fields, what is remembered from packet to
-- packet, and the dissection.  Bytes are read through take() alone, which answers nil where there are
-- none, so that no packet, however malformed, leads to an error in here.  Everything malformed and
-- everything out of order becomes an expert item.

local pegeir = Proto("pegeir", "pegeir recording")

-- ---- Names ----------------------------------------------------------------------------------------

local HEAD_SIZE, HEADER_SIZE, ACK = 44, 16, 0x80
local NDPI = 164

local KINDS = {
  [1] = "start", [2] = "end", [3] = "message", [4] = "peer", [5] = "timer message", [6] = "timer request",
  [7] = "clock",
}
local DIRECTIONS = { [0] = "none", [1] = "in", [2] = "out" }
local RESULTS = {
  [0] = "sent", [1] = "receiver's queue full", [2] = "no such process", [3] = "too long", [4] = "failed",
}
local PRESENCE = { [0] = "gone", [1] = "come" }
local TIMER_REQUESTS = { [1] = "create", [2] = "delete" }

-- Each message: its name; what it is called in other sentences; the sentence about it, of sender,
-- receiver and what the body holds; who originates it.  numbered: has a place in a download.  single:
-- is repeated until acknowledged, one at a time, perhaps under another number; others keep theirs.
local TYPES = {
  [16] = { name = "NDPI_MSG_REGISTER", noun = "registration", says = "%s registers with %s",
           library = true, single = true },
  [17] = { name = "NDPI_MSG_SUBSCRIBE_BEGIN", noun = "begin of the upload", says = "%s begins its upload to %s",
           library = true, single = true },
  [18] = { name = "NDPI_MSG_SUBSCRIBE_DATA", noun = "subscription", says = "%s asks %s for %s",
           library = true, body = "requests" },
  [19] = { name = "NDPI_MSG_SUBSCRIBE_END", noun = "end of the upload", says = "%s ends its upload to %s",
           library = true, single = true },
  [20] = { name = "NDPI_MSG_UNSUBSCRIBE_DATA", noun = "end of subscription", says = "%s no longer asks %s for %s",
           library = true, body = "requests" },
  [21] = { name = "NDPI_MSG_VERIFY_SUBSCRIBE_BEGIN", noun = "begin of the verification",
           says = "%s begins a verification pass with %s", library = true, single = true },
  [22] = { name = "NDPI_MSG_VERIFY_SUBSCRIBE_END", noun = "end of the verification's upload",
           says = "%s ends the upload of the verification pass to %s", library = true, single = true },
  [23] = { name = "NDPI_MSG_SMOOTH_BEGIN", noun = "begin of the download", says = "%s begins a download to %s",
           single = true, numbered = "begin" },
  [24] = { name = "NDPI_MSG_SMOOTH_DATA", noun = "data", says = "%s downloads to %s %s", body = "data",
           numbered = "data", quiet = true },
  [25] = { name = "NDPI_MSG_SMOOTH_END", noun = "end of the download", says = "%s ends the download to %s",
           single = true, numbered = "end" },
  [26] = { name = "NDPI_MSG_REAL_UPDATE", noun = "update", says = "%s updates %s: %s", body = "data" },
  [27] = { name = "NDPI_MSG_VERIFY_DATA_BEGIN", noun = "begin of the verification's download",
           says = "%s begins the download of the verification pass to %s", single = true, numbered = "begin" },
  [28] = { name = "NDPI_MSG_VERIFY_DATA_END", noun = "end of the verification's download",
           says = "%s ends the download of the verification pass to %s", single = true, numbered = "end" },
  [29] = { name = "NDPI_MSG_SEQUENCE_ERROR", noun = "sequence error",
           says = "%s tells %s of a gap and asks for a new download", library = true, single = true },
}
local TYPE_NAMES = {}
for number, type in pairs(TYPES) do TYPE_NAMES[number] = type.name end

local REQUEST = 18 -- element type of a subscription record
local KEYS = {
  [1000] = { name = "interface", every = 0, all = "every interface" },
  [2000] = { name = "test item", every = 0xFFFFFFFF, all = "every test item" },
}
local KEY_NAMES = { [1000] = "interface", [2000] = "test item" }
local DATA_NAMES = { [0] = "interface", [1] = "router-advertisement intervals", [2] = "neighbours", [3] = "test item" }
local OPERATIONS = { [1] = "set", [2] = "delete" }
local NEIGHBOUR_STATES = {
  [1] = "incomplete", [2] = "reachable", [4] = "stale", [8] = "delay", [16] = "probe", [32] = "failed",
  [64] = "no ARP", [128] = "permanent",
}
local ELEMENT_NAMES = {
  [18] = "subscription", [100] = "interface", [101] = "router-advertisement intervals", [102] = "neighbour",
  [103] = "test item",
}

-- ---- Fields ---------------------------------------------------------------------------------------

local f = {
  magic = ProtoField.string("pegeir.magic", "Magic"),
  version = ProtoField.uint8("pegeir.version", "Version"),
  kind = ProtoField.uint8("pegeir.kind", "Kind", base.DEC, KINDS),
  direction = ProtoField.uint8("pegeir.direction", "Direction", base.DEC, DIRECTIONS),
  headSize = ProtoField.uint16("pegeir.head_size", "Head size"),
  sender = ProtoField.uint32("pegeir.sender", "Sender"),
  receiver = ProtoField.uint32("pegeir.receiver", "Receiver"),
  intf = ProtoField.uint32("pegeir.interface", "Interface"),
  subIntf = ProtoField.uint32("pegeir.sub_interface", "Sub-interface"),
  iid = ProtoField.uint32("pegeir.receiver_iid", "Receiver IID"),
  result = ProtoField.uint32("pegeir.result", "Result", base.DEC, RESULTS),
  otherResult = ProtoField.uint32("pegeir.result", "Result"),
  clock = ProtoField.relative_time("pegeir.clock", "Monotonic clock"),
  number = ProtoField.uint32("pegeir.number", "Packet in the recording"),

  pid = ProtoField.uint32("pegeir.start.pid", "Process number"),
  utcOffset = ProtoField.int32("pegeir.start.utc_offset", "Local time ahead of GMT (s)"),
  program = ProtoField.string("pegeir.start.program", "Program"),
  directory = ProtoField.string("pegeir.start.directory", "Runtime directory"),
  presence = ProtoField.uint32("pegeir.peer.available", "The peer has", base.DEC, PRESENCE),
  timer = ProtoField.uint32("pegeir.timer.id", "Timer"),
  timerRequest = ProtoField.uint32("pegeir.timer.request", "Request", base.DEC, TIMER_REQUESTS),
  period = ProtoField.uint32("pegeir.timer.period", "Period (ms)"),
  data = ProtoField.bytes("pegeir.data", "Data"),

  length = ProtoField.uint16("pegeir.msg.length", "Message length"),
  flags = ProtoField.uint8("pegeir.msg.flags", "Flags", base.HEX),
  ack = ProtoField.bool("pegeir.msg.ack", "Acknowledgement", 8, nil, ACK),
  otherFlags = ProtoField.uint8("pegeir.msg.other_flags", "Without meaning", base.HEX, nil, 0x7F),
  type = ProtoField.uint8("pegeir.msg.type", "Type", base.DEC, TYPE_NAMES),
  trans = ProtoField.uint32("pegeir.msg.number", "Transaction number"),
  reserved = ProtoField.uint32("pegeir.msg.reserved", "Reserved", base.HEX),
  sequence = ProtoField.uint32("pegeir.msg.sequence", "Sequence number"),
  requestIn = ProtoField.framenum("pegeir.request_in", "Acknowledges", base.NONE, frametype.REQUEST),
  ackIn = ProtoField.framenum("pegeir.ack_in", "Acknowledged in", base.NONE, frametype.RESPONSE),
  repeats = ProtoField.framenum("pegeir.repeats", "Repeats", base.NONE, frametype.RETRANS_PREV),
  time = ProtoField.relative_time("pegeir.ack_time", "Time to the acknowledgement"),
  expected = ProtoField.uint32("pegeir.expected_sequence", "Expected sequence number"),

  element = ProtoField.bytes("pegeir.element", "Element"),
  elementType = ProtoField.uint16("pegeir.element.type", "Element type", base.DEC, ELEMENT_NAMES),
  elementLength = ProtoField.uint16("pegeir.element.length", "Value length"),
  value = ProtoField.bytes("pegeir.element.value", "Value"),
  keyType = ProtoField.uint16("pegeir.sub.key_type", "Key type", base.DEC, KEY_NAMES),
  keyLength = ProtoField.uint16("pegeir.sub.key_length", "Key length"),
  key = ProtoField.bytes("pegeir.sub.key", "Key"),
  keyIndex = ProtoField.uint32("pegeir.sub.index", "Index"),
  dataType = ProtoField.uint16("pegeir.sub.data_type", "Data type", base.DEC, DATA_NAMES),
  dataLength = ProtoField.uint16("pegeir.sub.data_length", "Data length"),
  requestData = ProtoField.bytes("pegeir.sub.data", "Data"),

  operation = ProtoField.uint8("pegeir.rec.operation", "Operation", base.DEC, OPERATIONS),
  ifindex = ProtoField.uint32("pegeir.rec.ifindex", "Interface index"),
  linkFlags = ProtoField.uint8("pegeir.link.flags", "Flags", base.HEX),
  up = ProtoField.bool("pegeir.link.up", "Up", 8, nil, 1),
  running = ProtoField.bool("pegeir.link.running", "Running", 8, nil, 2),
  loopback = ProtoField.bool("pegeir.link.loopback", "Loopback", 8, nil, 4),
  nameLength = ProtoField.uint16("pegeir.link.name_length", "Name length"),
  mtu = ProtoField.uint32("pegeir.link.mtu", "MTU"),
  mac = ProtoField.ether("pegeir.rec.mac", "MAC address"),
  name = ProtoField.string("pegeir.link.name", "Name"),
  min = ProtoField.uint32("pegeir.ra.min", "Smallest interval (s)"),
  max = ProtoField.uint32("pegeir.ra.max", "Largest interval (s)"),
  state = ProtoField.uint8("pegeir.neighbour.state", "State", base.DEC, NEIGHBOUR_STATES),
  neighbourFlags = ProtoField.uint8("pegeir.neighbour.flags", "Flags", base.HEX),
  router = ProtoField.bool("pegeir.neighbour.router", "Router", 8, nil, 1),
  macLength = ProtoField.uint8("pegeir.neighbour.mac_length", "MAC address length"),
  address = ProtoField.ipv6("pegeir.neighbour.address", "Address"),
  index = ProtoField.uint32("pegeir.item.index", "Index"),
  revision = ProtoField.uint32("pegeir.item.revision", "Revision"),
  rest = ProtoField.bytes("pegeir.rest", "Rest"),
}
pegeir.fields = f

local severity, group = expert.severity, expert.group
local e = {
  malformed = ProtoExpert.new("pegeir.malformed", "Malformed", group.MALFORMED, severity.ERROR),
  ignored = ProtoExpert.new("pegeir.ignored", "Bytes that are ignored", group.PROTOCOL, severity.NOTE),
  unknown = ProtoExpert.new("pegeir.unknown", "Unknown", group.UNDECODED, severity.NOTE),
  broken = ProtoExpert.new("pegeir.broken_rule", "Breaks a rule", group.PROTOCOL, severity.WARN),
  missing = ProtoExpert.new("pegeir.missing_packet", "Packets are missing", group.SEQUENCE, severity.WARN),
  gap = ProtoExpert.new("pegeir.gap", "Sequence gap", group.SEQUENCE, severity.WARN),
  unanswered = ProtoExpert.new("pegeir.unanswered", "Unanswered", group.SEQUENCE, severity.WARN),
  late = ProtoExpert.new("pegeir.late", "Late acknowledgement", group.SEQUENCE, severity.NOTE),
  unasked = ProtoExpert.new("pegeir.unasked", "Acknowledges nothing seen", group.SEQUENCE, severity.NOTE),
  refused = ProtoExpert.new("pegeir.refused", "Not sent", group.SEQUENCE, severity.WARN),
}
pegeir.experts = {
  e.malformed, e.ignored, e.unknown, e.broken, e.missing, e.gap, e.unanswered, e.late, e.unasked, e.refused,
}

-- ---- What is remembered ---------------------------------------------------------------------------

-- What the first pass has found out about a frame; requests learn of their acknowledgement later.
local facts = {}
-- For each recording process: the number of its last packet, and for each pair of originator and receiver
-- what is open between them.
local recorders = {}

function pegeir.init()
  facts, recorders = {}, {}
end

local function recorder(id)
  recorders[id] = recorders[id] or { pairs = {} }
  return recorders[id]
end

-- requests: frames by type and number.  waiting: the frame of each type that is repeated.
-- last: the number that the library has used last.  expected: the sequence number that the library takes
-- next in a download; open: whether one is under way.
local function pairOf(from, originator, receiver)
  local key = originator .. ">" .. receiver
  from.pairs[key] = from.pairs[key] or { requests = {}, waiting = {} }
  return from.pairs[key]
end

local function forgetPeer(from, peer)
  for key in pairs(from.pairs) do
    if key:match("^" .. peer .. ">") or key:match(">" .. peer .. "$") then from.pairs[key] = nil end
  end
end

local function numberPacket(head)
  local from = recorder(head.recorder)
  local fact = {}
  if head.kind == 1 then
    recorders[head.recorder] = { pairs = {} }
  elseif from.number and head.number ~= (from.number + 1) % 2 ^ 32 then
    fact.missing = from.number
  end
  recorder(head.recorder).number = head.number
  return fact
end

local function rememberRequest(fact, open, msg, head, frame)
  fact.isRequest = true
  fact.clock = head
  local waiting, key = open.waiting[msg.type], msg.type .. "/" .. msg.trans
  -- The library repeats nothing under the same number: there, a consumer has started anew.
  if not TYPES[msg.type].library then fact.same = open.requests[key] end
  if TYPES[msg.type].single then
    if waiting and not facts[waiting].ackIn then fact.repeats = waiting end
    open.waiting[msg.type] = frame
  else
    fact.repeats = fact.same
  end
  open.requests[key] = frame
  if TYPES[msg.type].library then open.last = msg.trans end
end

local function timeBetween(from, to)
  local seconds, nanoseconds = to.seconds - from.seconds, to.nanoseconds - from.nanoseconds
  if nanoseconds < 0 then seconds, nanoseconds = seconds - 1, nanoseconds + 1000000000 end
  return { seconds, nanoseconds }
end

local function rememberAck(fact, open, msg, head, frame)
  local asked = open.requests[msg.type .. "/" .. msg.trans]
  fact.isAck = true
  fact.requestIn = asked
  if not asked then return end
  fact.time = timeBetween(facts[asked].clock, head)
  -- Which of several with the same number is meant cannot be told: it answers all that wait.
  while asked and not facts[asked].ackIn do
    local request = facts[asked]
    request.ackIn, request.time = frame, timeBetween(request.clock, head)
    asked = request.same
  end
  fact.late = TYPES[msg.type].library and TYPES[msg.type].single and open.last ~= msg.trans
end

local function rememberDownload(fact, open, msg)
  local role = TYPES[msg.type].numbered
  if role == "data" and msg.length == HEADER_SIZE then return end -- refused before its number is looked at
  if role == "begin" then
    open.expected, open.open = msg.sequence, true
    return
  end
  if open.expected and msg.sequence ~= open.expected then
    fact.expected = open.expected
  elseif not open.open and role == "data" then
    fact.outside = true
  end
  -- The library goes on expecting what is missing, whatever comes, until a download begins anew.
  if role == "end" then
    open.open = false
  elseif not fact.expected then
    open.expected = (msg.sequence + 1) % 2 ^ 32
  end
end

-- Finds out what the packets before say about this message.
local function remember(fact, head, msg, frame)
  local type = TYPES[msg.type]
  if not type then return end
  local from = recorder(head.recorder)
  if head.result ~= 0 then
    -- The number of a request that was refused is used up all the same.
    if type.library and not msg.ack then pairOf(from, head.sender, head.receiver).last = msg.trans end
    return
  end
  if msg.ack then
    rememberAck(fact, pairOf(from, head.receiver, head.sender), msg, head, frame)
    return
  end
  local open = pairOf(from, head.sender, head.receiver)
  if type.numbered then rememberDownload(fact, open, msg) end
  if not type.quiet then rememberRequest(fact, open, msg, head, frame) end
end

-- ---- Dissection -----------------------------------------------------------------------------------

-- Returns size bytes at offset, or nil where there are not that many.
local function take(bytes, offset, size)
  if offset < 0 or size < 1 or offset + size > bytes:len() then return nil end
  return bytes(offset, size)
end

local function number(bytes, offset, size)
  local range = take(bytes, offset, size)
  return range and range:uint()
end

-- Adds field over size bytes and returns its value, or nil.
local function add(tree, field, bytes, offset, size)
  local range = take(bytes, offset, size)
  if not range then return nil end
  return range:uint(), tree:add(field, range)
end

local function text(range)
  return range and (range:raw():gsub("[^\32-\126]", "?")) or ""
end

local function mark(tree, kind, format, ...)
  tree:add_proto_expert_info(kind, string.format(format, ...))
end

local function addText(tree, field, bytes, offset)
  local length = number(bytes, offset, 2)
  local range = length and take(bytes, offset + 2, length)
  if range then
    tree:add(field, range, text(range))
  elseif length ~= 0 then
    mark(tree, e.malformed, "the text at byte %d reaches beyond the packet", offset)
    return nil
  end
  return offset + 2 + length, text(range)
end

local function plural(count, noun)
  return count == 1 and "1 " .. noun or count .. " " .. noun .. "s"
end

-- "3 items: a, b, c"; a long list is cut.
local function list(names, noun)
  if #names == 0 then return "no " .. noun .. "s" end
  local shown = table.concat(names, ", ", 1, math.min(#names, 4))
  if #names > 4 then shown = shown .. ", …" end
  return plural(#names, noun) .. ": " .. shown
end

local function addRequest(tree, value, isAck)
  local keyType = add(tree, f.keyType, value, 0, 2)
  local keyLength = add(tree, f.keyLength, value, 2, 2)
  if not keyLength then
    mark(tree, e.malformed, "a subscription of %d bytes is too short for a key", value:len())
    return "?"
  end
  local key = take(value, 4, keyLength)
  if key then
    tree:add(f.key, key)
  end
  local dataType = number(value, 4 + keyLength, 2)
  local dataLength = number(value, 6 + keyLength, 2)
  if not dataLength then
    mark(tree, e.malformed, "a key of %d bytes reaches beyond its subscription of %d", keyLength, value:len())
    return "?"
  end
  local known, name = KEYS[keyType], "key type " .. keyType
  if known and keyLength == 4 then
    local index = key:uint()
    tree:add(f.keyIndex, key)
    name = index == known.every and known.all or known.name .. " " .. index
  elseif not known then
    mark(tree, e.unknown, "key type %d is none of the reference component's", keyType)
  else
    mark(tree, e.broken, "the key of a subscription of one %s has 4 bytes, not %d", known.name, keyLength)
  end
  tree:add(f.dataType, value(4 + keyLength, 2))
  tree:add(f.dataLength, value(6 + keyLength, 2))
  local data = take(value, 8 + keyLength, dataLength)
  if data then
    tree:add(f.requestData, data)
  elseif dataLength ~= 0 and not isAck then
    mark(tree, e.malformed, "data of %d bytes reach beyond their subscription", dataLength)
  end
  local left = value:len() - 8 - keyLength - dataLength
  if left > 0 then
    mark(tree, e.ignored, "%s behind the subscription", plural(left, "byte"))
  end
  if known and not (dataType == 0 and keyType == 1000) and not (dataType == 3 and keyType == 2000) then
    name = name .. " (" .. (DATA_NAMES[dataType] or "data type " .. dataType) .. ")"
  elseif not known then
    name = name .. ", data type " .. dataType
  end
  return name
end

-- The values of the reference component's records: how many bytes are fixed, and what they hold.  Each
-- answers the name of the thing.  value has at least the fixed bytes.
local RECORDS = {
  [100] = { 18, function(tree, value)
    local flags = tree:add(f.linkFlags, value(1, 1))
    for _, flag in ipairs({ f.up, f.running, f.loopback }) do flags:add(flag, value(1, 1)) end
    tree:add(f.nameLength, value(2, 2))
    tree:add(f.ifindex, value(4, 4))
    tree:add(f.mtu, value(8, 4))
    tree:add(f.mac, value(12, 6))
    local length = value(2, 2):uint()
    local name = take(value, 18, length)
    if name then
      tree:add(f.name, name, text(name))
      return text(name)
    elseif length ~= 0 then
      mark(tree, e.malformed, "a name of %d bytes reaches beyond its record", length)
    end
    return "interface " .. value(4, 4):uint()
  end },
  [101] = { 16, function(tree, value)
    tree:add(f.ifindex, value(4, 4))
    tree:add(f.min, value(8, 4))
    tree:add(f.max, value(12, 4))
    return "intervals of interface " .. value(4, 4):uint()
  end },
  [102] = { 30, function(tree, value)
    tree:add(f.state, value(1, 1))
    tree:add(f.neighbourFlags, value(2, 1)):add(f.router, value(2, 1))
    tree:add(f.macLength, value(3, 1))
    tree:add(f.ifindex, value(4, 4))
    tree:add(f.address, value(8, 16))
    local length = value(3, 1):uint()
    if length == 6 then
      tree:add(f.mac, value(24, 6))
    elseif length ~= 0 then
      mark(tree, e.malformed, "a MAC address has 0 or 6 bytes, not %d", length)
    end
    return "neighbour " .. tostring(value(8, 16):ipv6()) .. " on " .. value(4, 4):uint()
  end },
  [103] = { 12, function(tree, value)
    tree:add(f.index, value(4, 4))
    tree:add(f.revision, value(8, 4))
    if value:len() > 12 then tree:add(f.rest, value(12)) end
    return "test item " .. value(4, 4):uint()
  end },
}

local function addRecord(tree, type, value)
  local record = RECORDS[type]
  if not record then
    if value then tree:add(f.value, value()) end
    mark(tree, e.unknown, "element type %d is none of the reference component's", type)
    return "element of type " .. type
  elseif not value or value:len() < record[1] then
    if value then tree:add(f.value, value()) end
    mark(tree, e.malformed, "a record of type %d has at least %d bytes, not %d", type, record[1],
         value and value:len() or 0)
    return "?"
  end
  local operation = tree:add(f.operation, value(0, 1))
  local deletes = value(0, 1):uint() == 2
  if not OPERATIONS[value(0, 1):uint()] then
    mark(operation, e.malformed, "operation %d is neither set nor delete", value(0, 1):uint())
  end
  local name = record[2](tree, value)
  return deletes and name .. " is gone" or name
end

-- Adds the elements between two offsets, and answers their names.
local function addElements(tree, bytes, from, to, type, isAck)
  local names, offset = {}, from
  while offset + 4 <= to do
    local elementType, length = bytes(offset, 2):uint(), bytes(offset + 2, 2):uint()
    if offset + 4 + length > to then break end
    local element = tree:add(f.element, bytes(offset, 4 + length))
    element:add(f.elementType, bytes(offset, 2))
    element:add(f.elementLength, bytes(offset + 2, 2))
    local value = length > 0 and bytes(offset + 4, length):tvb() or nil
    local name
    if type.body == "data" then
      name = addRecord(element, elementType, value)
    elseif type.body ~= "requests" then
      name = "element of type " .. elementType
    elseif elementType ~= REQUEST then
      name = "element of type " .. elementType
      mark(element, e.broken, "only subscriptions, of element type %d, belong here", REQUEST)
    elseif not value then
      name = "?"
      mark(element, e.malformed, "a subscription without bytes")
    else
      name = addRequest(element, value, isAck)
    end
    element:set_text((ELEMENT_NAMES[elementType] or "element of type " .. elementType) .. ": " .. name)
    names[#names + 1] = name
    offset = offset + 4 + length
  end
  if offset < to then
    mark(tree, e.ignored, "%s at the end are no whole element and are ignored", plural(to - offset, "byte"))
  end
  return names
end

local function addHeader(tree, bytes)
  local msg = { length = add(tree, f.length, bytes, 0, 2) }
  local value, flags = add(tree, f.flags, bytes, 2, 1)
  flags:add(f.ack, bytes(2, 1))
  flags:add(f.otherFlags, bytes(2, 1))
  msg.ack = value >= ACK
  msg.type = add(tree, f.type, bytes, 3, 1)
  msg.trans = add(tree, f.trans, bytes, 4, 4)
  tree:add(f.reserved, bytes(8, 4))
  msg.sequence = add(tree, f.sequence, bytes, 12, 4)
  return msg
end

local function addFacts(tree, fact, msg, visited)
  local function generated(field, value)
    if value then tree:add(field, value):set_generated() end
  end
  generated(f.requestIn, fact.requestIn)
  generated(f.ackIn, fact.ackIn)
  generated(f.repeats, fact.repeats)
  generated(f.time, fact.time and NSTime(fact.time[1], fact.time[2]))
  generated(f.expected, fact.expected)
  if fact.repeats then
    mark(tree, e.unanswered, "the same as frame %d, whose acknowledgement had not reached the sender", fact.repeats)
  end
  -- Only a second pass has seen what follows.
  if visited and fact.isRequest and not fact.ackIn then
    mark(tree, e.unanswered, "this %s is not acknowledged in this capture", TYPES[msg.type].noun)
  end
  if fact.isAck and not fact.requestIn then
    mark(tree, e.unasked, "what this acknowledges is not in this capture")
  end
  if fact.late then
    mark(tree, e.late, "there has been a later request; the library takes only the acknowledgement of its last")
  end
  if fact.expected then
    mark(tree, e.gap, "sequence number %d, but %d was expected", msg.sequence, fact.expected)
  elseif fact.outside then
    mark(tree, e.broken, "data of a download that has not begun")
  end
end

local function sentence(head, msg, type, names, fact)
  local sender, receiver = tostring(head.sender), tostring(head.receiver)
  local words
  if msg.ack then
    words = string.format("%s acknowledges the %s of %s, number %d", sender, type.noun, receiver, msg.trans)
    if #names > 0 and type.body == "requests" then words = words .. ": " .. list(names, "item") end
    if fact.requestIn then words = words .. string.format(" (frame %d)", fact.requestIn) end
    return words
  end
  local place = type.numbered and "sequence " .. msg.sequence or "number " .. msg.trans
  if type.body then
    return string.format(type.says, sender, receiver, list(names, type.body == "data" and "record" or "item")) ..
           ", " .. place
  end
  return string.format(type.says, sender, receiver) .. ", " .. place
end

-- Dissects a message of the component or for it; answers the sentence.
local function addMessage(tree, bytes, head, frame, visited)
  local delivered = bytes:len()
  local about = head.sender .. " to " .. head.receiver
  if delivered < HEADER_SIZE then
    mark(tree, e.malformed, "%s are too few for a message", plural(delivered, "byte"))
    return "message of " .. plural(delivered, "byte") .. ", " .. about .. ": malformed"
  end
  local msg = addHeader(tree, bytes)
  local type = TYPES[msg.type]
  if not type then
    mark(tree, e.broken, "there is no message type %d; the library ignores it", msg.type)
    return string.format("message of unknown type %d, %s", msg.type, about)
  end
  if msg.length < HEADER_SIZE or msg.length > delivered then
    mark(tree, e.malformed, "the length is %d, but there are %s", msg.length, plural(delivered, "byte"))
    return type.name .. ", " .. about .. ": malformed"
  end
  local fact = facts[frame] or {}
  if not visited then remember(fact, head, msg, frame) end
  if type.quiet and msg.ack then
    mark(tree, e.broken, "nobody acknowledges data of a download")
  elseif type.body == "data" and not msg.ack and msg.length == HEADER_SIZE then
    mark(tree, e.broken, "a message of data without any; the library refuses it")
  end
  local names = addElements(tree, bytes, HEADER_SIZE, msg.length, type, msg.ack)
  if msg.length < delivered then
    mark(tree, e.ignored, "%s behind the message", plural(delivered - msg.length, "byte"))
  end
  addFacts(tree, fact, msg, visited)
  local words = sentence(head, msg, type, names, fact)
  if fact.expected then words = words .. string.format(" – out of sequence, %d was expected", fact.expected) end
  if fact.repeats then words = words .. string.format(" – again, as frame %d", fact.repeats) end
  return words
end

-- The other kinds: each adds its data and answers the sentence, or nothing when bytes are missing.
local OTHERS = {
  [1] = function(tree, bytes, head)
    if not add(tree, f.pid, bytes, 0, 4) then return nil end
    local offset = 8
    tree:add(f.utcOffset, take(bytes, 4, 4) or bytes(0, 4))
    local program
    offset, program = addText(tree, f.program, bytes, offset)
    if not offset or not addText(tree, f.directory, bytes, offset) then return nil end
    return string.format("%s, process %d, begins to record as %d", program, bytes(0, 4):uint(), head.sender)
  end,
  [2] = function(_, _, head) return string.format("%d ends its recording", head.sender) end,
  [4] = function(tree, bytes, head)
    local available = add(tree, f.presence, bytes, 0, 4)
    if not available then return nil end
    return string.format("%d is told that %d has %s", head.receiver, head.sender, available == 0 and "gone" or "come")
  end,
  [5] = function(tree, bytes, head)
    local timer = add(tree, f.timer, bytes, 0, 4)
    return timer and string.format("timer %d of %d expires", timer, head.receiver)
  end,
  [6] = function(tree, bytes, head)
    local request = add(tree, f.timerRequest, bytes, 0, 4)
    local timer = add(tree, f.timer, bytes, 4, 4)
    local period = add(tree, f.period, bytes, 8, 4)
    if not period then return nil end
    if request == 1 then return string.format("%d starts timer %d, every %d ms", head.sender, timer, period) end
    return string.format("%d stops timer %d", head.sender, timer)
  end,
  [7] = function(_, _, head) return string.format("%d reads the clock: %d s", head.sender, head.seconds) end,
}

local function addHead(tree, bytes)
  tree:add(f.magic, bytes(0, 3), text(bytes(0, 3)))
  tree:add(f.version, bytes(3, 1))
  local head = {}
  head.kind = add(tree, f.kind, bytes, 4, 1)
  head.direction = add(tree, f.direction, bytes, 5, 1)
  head.size = add(tree, f.headSize, bytes, 6, 2)
  head.sender = add(tree, f.sender, bytes, 8, 4)
  head.receiver = add(tree, f.receiver, bytes, 12, 4)
  tree:add(f.intf, bytes(16, 4))
  head.subIntf = add(tree, f.subIntf, bytes, 20, 4)
  tree:add(f.iid, bytes(24, 4))
  head.result = add(tree, head.kind == 3 and f.result or f.otherResult, bytes, 28, 4)
  head.seconds, head.nanoseconds = bytes(32, 4):uint(), bytes(36, 4):uint()
  tree:add(f.clock, bytes(32, 8), NSTime(head.seconds, head.nanoseconds))
  head.number = add(tree, f.number, bytes, 40, 4)
  -- What comes in comes to who records, all else is of its own.
  local comesIn = head.direction == 1 and head.kind ~= 7
  head.recorder = comesIn and head.receiver or head.sender
  return head
end

-- Dissects what is behind the head; answers the sentence.
local function addData(tree, bytes, head, frame, visited)
  if head.kind == 3 and head.subIntf ~= NDPI then
    if bytes then tree:add(f.data, bytes()) end
    return string.format("message of sub-interface %d, %d to %d", head.subIntf, head.sender, head.receiver)
  elseif head.kind == 3 then
    if bytes then return addMessage(tree, bytes, head, frame, visited) end
    mark(tree, e.malformed, "a message without bytes")
    return string.format("message without bytes, %d to %d", head.sender, head.receiver)
  elseif not KINDS[head.kind] then
    mark(tree, e.unknown, "there is no kind %d in version 1", head.kind)
    return "packet of unknown kind " .. head.kind
  end
  if not bytes and head.kind ~= 2 and head.kind ~= 7 then
    mark(tree, e.malformed, "a packet of this kind has data")
    return KINDS[head.kind] .. ": malformed"
  end
  local words = OTHERS[head.kind](tree, bytes, head)
  if not words then
    mark(tree, e.malformed, "%s are too few for this kind", plural(bytes:len(), "byte"))
  end
  return words or KINDS[head.kind] .. ": malformed"
end

local function refuse(tree, pinfo, reason)
  mark(tree, e.malformed, "%s", reason)
  pinfo.cols.info = "malformed: " .. reason
end

function pegeir.dissector(bytes, pinfo, root)
  pinfo.cols.protocol = "pegeir"
  local tree = bytes:len() > 0 and root:add(pegeir, bytes()) or root:add(pegeir)
  if bytes:len() < HEAD_SIZE then
    return refuse(tree, pinfo, plural(bytes:len(), "byte") .. " are too few for the head of a packet")
  elseif bytes(0, 3):raw() ~= "PGC" then
    return refuse(tree, pinfo, "this is no packet of a pegeir recording")
  elseif bytes(3, 1):uint() ~= 1 then
    return refuse(tree, pinfo, "version " .. bytes(3, 1):uint() .. " is not known")
  end
  local heading = tree:add(pegeir, bytes(0, HEAD_SIZE), "Head")
  local head = addHead(heading, bytes)
  pinfo.cols.src = tostring(head.sender)
  pinfo.cols.dst = tostring(head.receiver)
  if head.size < HEAD_SIZE or head.size > bytes:len() then
    return refuse(heading, pinfo, "the head size is " .. head.size .. ", not " .. HEAD_SIZE .. " or a little more")
  end
  local frame, visited = pinfo.number, pinfo.visited
  if not visited then facts[frame] = numberPacket(head) end
  local fact = facts[frame]
  if fact and fact.missing then
    mark(heading, e.missing, "number %d follows number %d", head.number, fact.missing)
  end

  local data = bytes:len() > head.size and bytes(head.size):tvb() or nil
  local name = head.kind == 3 and "Message" or "Data"
  local body = data and tree:add(pegeir, bytes(head.size), name) or tree
  local words = addData(body, data, head, frame, visited)
  if head.result ~= 0 then
    local reason = head.kind == 3 and RESULTS[head.result] or "result " .. head.result
    mark(heading, e.refused, "refused: %s", reason or "result " .. head.result)
    words = words .. " – refused: " .. (reason or "result " .. head.result)
  end
  if head.kind == 4 and not visited then forgetPeer(recorder(head.recorder), head.sender) end
  tree:append_text(": " .. words)
  pinfo.cols.info = words
end

DissectorTable.get("wtap_encap"):add(wtap.USER0, pegeir)
