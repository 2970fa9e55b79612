-- mqnode.lua - dissects mqnode messages in Wireshark and tshark, over TCP and UDP.
--
-- Shows plain and signed messages of senders with either byte order and character set: every header field, the
-- parameters by type, the trailer of a signature. Of a sealed message, which is encrypted, shows the user that it is
-- sealed for. If a message breaks rules, shows the first one, in the order in which a reader checks them, with the
-- error code that the reader reports (field mqnode.error).
-- Not here: the verification of the signature, which needs the sender's public key.
-- Invariant: no byte is read before Held has confirmed that it was captured; lengths on the wire are never trusted.
--
-- Runs on Lua 5.2 to 5.4: numbers may be floats or integers, so there are no bit operations and no integer overflow.

local mqnode = Proto("mqnode", "mqnode messages")

local HEADER = 136
local ENVELOPE = 32
local SEAL = 64
local TRAILER = 96
local MARK, SEALED_MARK = "MQSIGN01", "MQSIGN02"
local MAX_MESSAGE = 67108864
local MAX_PARAMS = 3740
local DATAGRAM_ROOM = 16520  -- bytes, longest datagram, unless the receiving host has enlarged its node's buffer
local WINDOW = 300           -- seconds between signing and receiving that a receiver accepts by default
local TEXT_SHOWN = 65536     -- bytes of one text shown in the tree
local INFO_TEXT = 40         -- bytes of one text shown in the Info column
local INFO_PARAMS = 8        -- parameters of one message shown in the Info column
local INFO_LENGTH = 1000     -- bytes of all messages of one call in the Info column

local INT32, INT64, TEXT, BYTES = 1, 2, 3, 4

local BAD_MESSAGE, BAD_BODY, NOT_AUTHENTIC = 2026, 4005, -1001

-- ---- Preferences ----

mqnode.prefs.tcp_ports = Pref.range("TCP ports", "", "Ports whose TCP streams are mqnode messages", 65535)
mqnode.prefs.udp_ports = Pref.range("UDP ports", "", "Ports whose datagrams are mqnode messages", 65535)
mqnode.prefs.companion = Pref.bool("Bodies and signatures of libmqcompanion", true,
  "Take bodies and signatures apart as libmqcompanion writes them. Switch off for hosts with another companion runtime")

-- ---- Fields ----

local types = {[INT32] = "int32", [INT64] = "int64", [TEXT] = "text", [BYTES] = "bytes"}
local errors = {
  [BAD_MESSAGE] = "MQ_BAD_MESSAGE", [BAD_BODY] = "MQ_BAD_BODY", [NOT_AUTHENTIC] = "MQ_NOT_AUTHENTIC"
}
local orders = {[0] = "little-endian", [1] = "big-endian"}
local charsets = {[0] = "EBCDIC", [1] = "ASCII"}

local f = {
  error = ProtoField.int32("mqnode.error", "Reader reports", base.DEC, errors),
  stray = ProtoField.bytes("mqnode.stray", "Not a message"),
  undecoded = ProtoField.bytes("mqnode.undecoded", "Not taken apart"),

  env = ProtoField.none("mqnode.env", "Envelope"),
  env_length = ProtoField.uint32("mqnode.env.length", "Envelope length"),
  env_version = ProtoField.uint32("mqnode.env.version", "Version"),
  env_big = ProtoField.uint32("mqnode.env.big_endian", "Byte order", base.DEC, orders),
  env_ascii = ProtoField.uint32("mqnode.env.ascii", "Character set", base.DEC, charsets),
  env_announced = ProtoField.uint32("mqnode.env.message_length", "Message length"),
  env_user = ProtoField.string("mqnode.env.user", "User"),

  hdr = ProtoField.none("mqnode.hdr", "Header"),
  hdr_length = ProtoField.uint32("mqnode.hdr.length", "Header length"),
  encoding = ProtoField.uint32("mqnode.encoding", "Encoding of the body"),
  big = ProtoField.uint32("mqnode.big_endian", "Byte order", base.DEC, orders),
  ascii = ProtoField.uint32("mqnode.ascii", "Character set", base.DEC, charsets),
  library16 = ProtoField.bytes("mqnode.library16", "Message library's"),
  announced = ProtoField.uint32("mqnode.body_length", "Body length"),
  origin = ProtoField.uint32("mqnode.origin", "Origin"),
  user = ProtoField.string("mqnode.user", "User"),
  application = ProtoField.string("mqnode.application", "Application"),
  library132 = ProtoField.uint32("mqnode.library132", "Message library's", base.HEX),

  body = ProtoField.none("mqnode.body", "Body"),
  command = ProtoField.uint32("mqnode.command", "Command"),
  count = ProtoField.uint32("mqnode.count", "Parameters"),
  param = ProtoField.none("mqnode.param", "Parameter"),
  id = ProtoField.uint32("mqnode.param.id", "Id"),
  type = ProtoField.uint32("mqnode.param.type", "Type", base.DEC, types),
  length = ProtoField.uint32("mqnode.param.length", "Length"),
  int32 = ProtoField.int32("mqnode.param.int32", "Value"),
  int64 = ProtoField.int64("mqnode.param.int64", "Value"),
  text = ProtoField.string("mqnode.param.text", "Value"),
  bytes = ProtoField.bytes("mqnode.param.bytes", "Value"),

  encrypted = ProtoField.bytes("mqnode.encrypted", "Encrypted header and body"),
  seal = ProtoField.none("mqnode.seal", "Seal"),
  seal_user = ProtoField.string("mqnode.seal.user", "Sealed for"),
  seal_reserved = ProtoField.uint32("mqnode.seal.reserved", "Reserved", base.HEX),
  seal_key = ProtoField.bytes("mqnode.seal.key", "Ephemeral key"),
  seal_tag = ProtoField.bytes("mqnode.seal.tag", "Tag"),

  trailer = ProtoField.none("mqnode.trailer", "Trailer"),
  mark = ProtoField.string("mqnode.trailer.mark", "Mark"),
  time = ProtoField.absolute_time("mqnode.trailer.time", "Signed at", base.UTC),
  milliseconds = ProtoField.uint64("mqnode.trailer.milliseconds", "Milliseconds since 1970"),
  nonce = ProtoField.bytes("mqnode.trailer.nonce", "Nonce"),
  signature = ProtoField.bytes("mqnode.trailer.signature", "Signature"),
}
mqnode.fields = f

local function Malformed(name, text)
  return ProtoExpert.new("mqnode.expert." .. name, text, expert.group.MALFORMED, expert.severity.ERROR)
end

local function Note(name, text, group, severity)
  return ProtoExpert.new("mqnode.expert." .. name, text, group, severity)
end

local x = {
  first = Malformed("first_word", "The first word is not the length of a header"),
  form = Malformed("form", "The flags of the sender's form contradict"),
  length = Malformed("length", "A length that no message has"),
  size = Malformed("size", "Lengths disagree"),
  room = Malformed("room", "Longer than a datagram node's buffer"),
  body = Malformed("body", "The body cannot be taken apart"),
  sign = Malformed("signed", "The signed message cannot be authentic"),
  origin = Note("origin", "The origin word is not 0", expert.group.PROTOCOL, expert.severity.WARN),
  time = Note("time", "Signed long before or after the capture", expert.group.SECURITY, expert.severity.WARN),
  replay = Note("replay", "The nonce was seen before", expert.group.SECURITY, expert.severity.WARN),
  cut = Note("cut", "Not all of the message was captured", expert.group.UNDECODED, expert.severity.NOTE),
}
mqnode.experts = x

-- ---- Bytes ----

local function Held(tvb, at, length) return at + length <= tvb:len() end

local function Word(tvb, at, little)
  if little then return tvb(at, 4):le_uint() end
  return tvb(at, 4):uint()
end

local function AddWord(tree, field, tvb, at, little)
  if little then return tree:add_le(field, tvb(at, 4)) end
  return tree:add(field, tvb(at, 4))
end

local function Bytes(tvb, at, length)
  if length == 0 then return "" end
  return tvb(at, length):raw()
end

-- ---- Text ----

-- ISO-8859-1 for each byte of IBM-1047.
local EBCDIC =
  "000102039c09867f978d8e0b0c0d0e0f101112139d8508871819928f1c1d1e1f" ..
  "80818283840a171b88898a8b8c050607909116939495960498999a9b14159e1a" ..
  "20a0e2e4e0e1e3e5e7f1a22e3c282b7c26e9eaebe8edeeefecdf21242a293b5e" ..
  "2d2fc2c4c0c1c3c5c7d1a62c255f3e3ff8c9cacbc8cdcecfcc603a2340273d22" ..
  "d8616263646566676869abbbf0fdfeb1b06a6b6c6d6e6f707172aabae6b8c6a4" ..
  "b57e737475767778797aa1bfd05bdeaeaca3a5b7a9a7b6bcbdbedda8af5db4d7" ..
  "7b414243444546474849adf4f6f2f3f57d4a4b4c4d4e4f505152b9fbfcf9faff" ..
  "5cf7535455565758595ab2d4d6d2d3d530313233343536373839b3dbdcd9da9f"

local latin_of_ebcdic = {}
for i = 0, 255 do
  latin_of_ebcdic[string.char(i)] = string.char(tonumber(EBCDIC:sub(2 * i + 1, 2 * i + 2), 16))
end

local utf8_of_latin = {}
for i = 128, 255 do
  utf8_of_latin[string.char(i)] = string.char(i < 192 and 194 or 195, 128 + i % 64)
end

local utf8_sequences = {
  "[\194-\223][\128-\191]", "\224[\160-\191][\128-\191]", "[\225-\236\238\239][\128-\191][\128-\191]",
  "\237[\128-\159][\128-\191]", "\240[\144-\191][\128-\191][\128-\191]",
  "[\241-\243][\128-\191][\128-\191][\128-\191]", "\244[\128-\143][\128-\191][\128-\191]"
}

local function IsUtf8(bytes)
  for _, sequence in ipairs(utf8_sequences) do bytes = bytes:gsub(sequence, " ") end
  return not bytes:find("[\128-\255]")
end

-- The sender's text as an ASCII receiver stores it, byte for byte.
local function Received(bytes, ebcdic)
  return ebcdic and (bytes:gsub(".", latin_of_ebcdic)) or bytes
end

-- At most limit bytes of text, without a partial character at its end.
local function Shorten(text, limit)
  if #text <= limit then return text end
  return text:sub(1, limit):gsub("[\192-\255][\128-\191]*$", "") .. "..."
end

-- The pictures of the ASCII control characters, U+2400 to U+2421.
local pictures = {["\127"] = "\226\144\161"}
for c = 0, 31 do pictures[string.char(c)] = "\226\144" .. string.char(128 + c) end

-- Control characters beyond ASCII; marks that change the direction of writing or begin a line. In UTF-8.
local unsafe_sequences = {
  "\194[\128-\159]", "\216\156", "\226\128[\142\143\168-\174]", "\226\129[\166-\169]"
}

local function CodePoint(sequence)
  local first, second, third = sequence:byte(1, 3)
  local code = third and first % 16 * 4096 + second % 64 * 64 + third % 64 or first % 32 * 64 + second % 64
  return string.format("<U+%04X>", code)
end

-- Makes a sender's text safe for Wireshark and for terminals: UTF-8 without control characters. Text that is not UTF-8
-- is read as ISO-8859-1.
local function Readable(bytes, ebcdic)
  local text = Received(bytes, ebcdic)
  if ebcdic or not IsUtf8(text) then text = text:gsub("[\128-\255]", utf8_of_latin) end
  text = text:gsub("[\0-\31\127]", pictures)
  for _, sequence in ipairs(unsafe_sequences) do text = text:gsub(sequence, CodePoint) end
  return text
end

-- The text of a field that is padded with zero bytes.
local function FieldText(bytes, ebcdic) return Readable(bytes:gsub("\0.*$", ""), ebcdic) end

-- ---- Analysis of one message ----
--
-- A message m: tvb, pinfo, at (its start), item (its tree item), params (texts for the Info column), error (the code of
-- the first broken rule), fault (that rule), cut (not all was captured), and what the Show functions add.

local function Break(m, tree, info, code, format, ...)
  local text = string.format(format, ...)
  tree:add_proto_expert_info(info, text)
  if m.error then return end
  m.error = code
  m.fault = text
end

-- False, with a note in the tree, if these bytes of a message were not captured.
local function Captured(m, tree, at, length)
  if Held(m.tvb, at, length) then return true end
  if not m.cut then tree:add_proto_expert_info(x.cut) end
  m.cut = true
  return false
end

-- Shows bytes under a field, as far as they were captured.
local function AddBytes(m, tree, field, at, length)
  local held = math.min(length, m.tvb:len() - at)
  if held > 0 then tree:add(field, m.tvb(at, held)) end
end

-- ---- Headers ----

-- The form in which a header or an envelope was written: little, ebcdic; if its words contradict each other, also a
-- fault and its expert info. At least 16 bytes of it must be captured.
local function FormOf(tvb, at, length)
  local form = {little = Word(tvb, at, true) == length}
  if not form.little and Word(tvb, at, false) ~= length then
    return form, string.format("the first word is %d, not the length %d", Word(tvb, at, true), length), x.first
  end
  local big, ascii = Word(tvb, at + 8, form.little), Word(tvb, at + 12, form.little)
  form.ebcdic = ascii == 0
  if big > 1 then return form, string.format("the byte order flag is %d, neither 0 nor 1", big), x.form end
  if ascii > 1 then return form, string.format("the character set flag is %d, neither 0 nor 1", ascii), x.form end
  if (big == 0) ~= form.little then return form, "the byte order flag contradicts the first word", x.form end
  return form
end

local function ShowText(m, tree, field, at, length, form)
  local bytes = Bytes(m.tvb, at, length)
  local text = FieldText(bytes, form.ebcdic)
  tree:add(field, m.tvb(at, length), text)
  return text, Received(bytes, form.ebcdic)
end

local function ShowEnvelope(m, form)
  local tvb, at = m.tvb, m.at
  local tree = m.item:add(f.env, tvb(at, ENVELOPE))
  AddWord(tree, f.env_length, tvb, at, form.little)
  m.version_item = AddWord(tree, f.env_version, tvb, at + 4, form.little)
  m.version = Word(tvb, at + 4, form.little)
  AddWord(tree, f.env_big, tvb, at + 8, form.little)
  AddWord(tree, f.env_ascii, tvb, at + 12, form.little)
  AddWord(tree, f.env_announced, tvb, at + 16, form.little)
  local text
  text, m.env_user = ShowText(m, tree, f.env_user, at + 20, 12, form)
  m.env_text = text
  tree:append_text(string.format(": %d bytes of %s", Word(tvb, at + 16, form.little), text))
  return tree
end

local function ShowHeader(m, at, form)
  local tvb = m.tvb
  local tree = m.item:add(f.hdr, tvb(at, HEADER))
  AddWord(tree, f.hdr_length, tvb, at, form.little)
  AddWord(tree, f.encoding, tvb, at + 4, form.little)
  AddWord(tree, f.big, tvb, at + 8, form.little)
  AddWord(tree, f.ascii, tvb, at + 12, form.little)
  tree:add(f.library16, tvb(at + 16, 48))
  AddWord(tree, f.announced, tvb, at + 64, form.little)
  m.origin_item = AddWord(tree, f.origin, tvb, at + 68, form.little)
  m.user, m.hdr_user = ShowText(m, tree, f.user, at + 72, 12, form)
  m.application = ShowText(m, tree, f.application, at + 84, 48, form)
  AddWord(tree, f.library132, tvb, at + 132, form.little)
  m.encoding = Word(tvb, at + 4, form.little)
  m.body_length = Word(tvb, at + 64, form.little)
  tree:append_text(string.format(": %d bytes of %s, %s", m.body_length, m.user, m.application))
  return tree
end

-- ---- Body ----

local function StoredLength(type, length)
  local stored = length + (type == TEXT and 1 or 0)
  return stored + (-stored) % 4
end

local function FitsType(type, length)
  if type == INT32 then return length == 4 end
  if type == INT64 then return length == 8 end
  return type == TEXT or type == BYTES
end

-- Shows a parameter's value, which must be captured, in the tree and returns it as text for the Info column.
local show_value = {
  [INT32] = function(m, tree, param, form)
    AddWord(tree, f.int32, m.tvb, param.value, form.little)
    local range = m.tvb(param.value, 4)
    return tostring(form.little and range:le_int() or range:int())
  end,
  [INT64] = function(m, tree, param, form)
    local range = m.tvb(param.value, 8)
    if form.little then tree:add_le(f.int64, range) else tree:add(f.int64, range) end
    return tostring(form.little and range:le_int64() or range:int64())
  end,
  [TEXT] = function(m, tree, param, form)
    local text = Readable(Bytes(m.tvb, param.value, math.min(param.length, TEXT_SHOWN + 1)), form.ebcdic)
    tree:add(f.text, m.tvb(param.value, param.length), Shorten(text, TEXT_SHOWN))
    return '"' .. Shorten(text, INFO_TEXT) .. '"'
  end,
  [BYTES] = function(m, tree, param)
    if param.length > 0 then tree:add(f.bytes, m.tvb(param.value, param.length)) end
    return string.format("<%d bytes>", param.length)
  end
}

-- Checks the rules that need the value's bytes, which must be captured.
local function CheckValue(m, tree, param, Fail)
  local stored = StoredLength(param.type, param.length)
  if Bytes(m.tvb, param.value + param.length, stored - param.length):find("[^\0]") then
    Fail("padding is not zero after %d", param.length)
  elseif param.type == TEXT and Bytes(m.tvb, param.value, param.length):find("\0") then
    Fail("text with a zero byte among its %d", param.length)
  end
end

-- Shows the parameter at `at`; room is the length of the body after the parameter's head. Returns where the next one
-- begins, or nil at the end of the walk.
local function ShowParam(m, body, index, at, room, form)
  local tvb = m.tvb
  local param = {id = Word(tvb, at, form.little), type = Word(tvb, at + 4, form.little),
                 length = Word(tvb, at + 8, form.little), value = at + 12}
  local stored = StoredLength(param.type, param.length)
  local tree = body:add(f.param, tvb(at, math.min(12 + stored, 12 + room, tvb:len() - at)))
  tree:append_text(string.format(" %d, %s", param.id, types[param.type] or "unknown type"))
  AddWord(tree, f.id, tvb, at, form.little)
  AddWord(tree, f.type, tvb, at + 4, form.little)
  AddWord(tree, f.length, tvb, at + 8, form.little)
  local function Fail(format, number)
    Break(m, tree, x.body, BAD_BODY, "parameter %d (id %d, type %d): " .. format, index, param.id, param.type, number)
  end
  if param.length > room then return Fail("longer than the body, bytes left: %d", room) end
  if not FitsType(param.type, param.length) then
    return Fail("unknown type or a length that does not fit it: %d", param.length)
  end
  if stored > room then return Fail("padding beyond the body, bytes left: %d", room) end
  if not Captured(m, tree, param.value, stored) then return end
  local text = show_value[param.type](m, tree, param, form)
  tree:append_text(": " .. text)
  if index < INFO_PARAMS then table.insert(m.params, param.id .. "=" .. text) end
  CheckValue(m, tree, param, Fail)
  return not m.fault and param.value + stored or nil
end

local function ShowParams(m, tree, at, stop, form)
  for index = 0, m.count - 1 do
    if stop - at < 12 then
      return Break(m, tree, x.body, BAD_BODY, "parameter %d of %d: the body ends in its head", index, m.count)
    end
    if not Captured(m, tree, at, 12) then return end
    at = ShowParam(m, tree, index, at, stop - at - 12, form)
    if not at then return end
  end
  if at ~= stop then Break(m, tree, x.body, BAD_BODY, "%d bytes follow the last parameter", stop - at) end
end

-- A header in the form of an x86-64 host keeps its origin word on arrival, and the receiver interprets the body as that
-- word says: bit 0 the other byte order, bit 1 the other character set.
local function FormOfBody(m, tree, form, origin)
  if origin == 0 then return form end
  m.origin_item:add_proto_expert_info(x.origin, string.format("the origin word is %d; senders write 0", origin))
  if not form.little or form.ebcdic then return form end
  if origin > 3 then Break(m, tree, x.body, BAD_BODY, "the origin word is %d", origin) end
  return {little = origin % 2 == 0, ebcdic = origin >= 2}
end

local function ShowBody(m, at, form, header)
  local stop = at + m.body_length
  if not Captured(m, m.item, at, 1) then return end
  local tree = m.item:add(f.body, m.tvb(at, math.min(m.body_length, m.tvb:len() - at)))
  if mqnode.prefs.companion and m.encoding ~= 1 then
    Break(m, tree, x.body, BAD_BODY, "the body's encoding is version %d, not 1", m.encoding)
  end
  if not mqnode.prefs.companion or m.encoding ~= 1 then return AddBytes(m, tree, f.undecoded, at, m.body_length) end
  form = FormOfBody(m, tree, form, Word(m.tvb, header + 68, form.little))
  if m.body_length < 8 then
    Break(m, tree, x.body, BAD_BODY, "a body of %d bytes is too short for its head", m.body_length)
  end
  if m.error then return AddBytes(m, tree, f.undecoded, at, m.body_length) end
  if not Captured(m, tree, at, 8) then return end
  m.command, m.count = Word(m.tvb, at, form.little), Word(m.tvb, at + 4, form.little)
  AddWord(tree, f.command, m.tvb, at, form.little)
  local count = AddWord(tree, f.count, m.tvb, at + 4, form.little)
  tree:append_text(string.format(": command %d, %d parameters", m.command, m.count))
  if m.count > MAX_PARAMS then
    return Break(m, count, x.body, BAD_BODY, "%d parameters, at most %d can be held", m.count, MAX_PARAMS)
  end
  ShowParams(m, tree, at + 8, stop, form)
end

-- ---- Signature ----

local first_use = {}  -- user and nonce: where they were seen first

function mqnode.init() first_use = {} end

local function CheckReplay(m, tree, nonce)
  local key = m.env_user .. nonce
  local here = {number = m.pinfo.number, at = m.at}
  if not first_use[key] and not m.pinfo.visited then first_use[key] = here end
  local first = first_use[key] or here
  if first.number == here.number and first.at == here.at then return end
  tree:add_proto_expert_info(x.replay, string.format("a replay, or captured twice: user and nonce as in frame %d",
                                                     first.number))
end

local function ShowTime(m, tree, at)
  local milliseconds = m.tvb(at, 8):uint64():tonumber()
  local seconds = math.floor(milliseconds / 1000)
  local item
  if milliseconds < 253402300800000 then  -- through the year 9999
    item = tree:add(f.time, m.tvb(at, 8), NSTime.new(seconds, math.floor(milliseconds % 1000) * 1000000))
  end
  local number = tree:add(f.milliseconds, m.tvb(at, 8))
  local age = m.pinfo.abs_ts - milliseconds / 1000
  if math.abs(age) <= WINDOW then return end
  (item or number):add_proto_expert_info(x.time, string.format(
    "signed %.0f s %s the capture; receivers accept %d s unless told otherwise", math.abs(age),
    age < 0 and "after" or "before", WINDOW))
end

local function ShowTrailer(m, at)
  if not Captured(m, m.item, at, TRAILER) then return end
  local tree = m.item:add(f.trailer, m.tvb(at, TRAILER))
  tree:add(f.mark, m.tvb(at, 8), Readable(Bytes(m.tvb, at, 8)))
  ShowTime(m, tree, at + 8)
  local nonce = tree:add(f.nonce, m.tvb(at + 16, 16))
  tree:add(f.signature, m.tvb(at + 32, 64))
  CheckReplay(m, nonce, Bytes(m.tvb, at + 16, 16))
end

local function IsUser(bytes) return bytes:find("^[!\"$-~]+\0*$") ~= nil end

-- Rules of the mark in a trailer and of the user in the envelope, which a reader checks last.
local function CheckTrailer(m, envelope, trailer, mark)
  if Held(m.tvb, trailer, #mark) and Bytes(m.tvb, trailer, #mark) ~= mark then
    Break(m, m.item, x.sign, NOT_AUTHENTIC, "no signature follows the message")
  elseif not IsUser(m.env_user) then
    Break(m, envelope, x.sign, NOT_AUTHENTIC, "the user in the envelope is not valid")
  end
end

-- Checks rules on envelope, header and trailer; at is where the header begins, length what the envelope announces.
local function CheckSigned(m, envelope, header, at, length)
  if m.version ~= 1 then Break(m, m.version_item, x.sign, NOT_AUTHENTIC, "an envelope of version %d", m.version) end
  if m.body_length ~= length - TRAILER - HEADER then
    Break(m, header, x.sign, NOT_AUTHENTIC, "the header says %d bytes of body, there are %d", m.body_length,
          length - TRAILER - HEADER)
  end
  if m.env_user ~= m.hdr_user then
    Break(m, envelope, x.sign, NOT_AUTHENTIC, "header and envelope name different users")
  else
    CheckTrailer(m, envelope, at + length - TRAILER, MARK)
  end
end

-- The form of a seal is the same from every sender.
local function ShowSeal(m, at)
  if not Captured(m, m.item, at, SEAL) then return end
  local tree = m.item:add(f.seal, m.tvb(at, SEAL))
  local text, user = ShowText(m, tree, f.seal_user, at, 12, {})
  local reserved = tree:add(f.seal_reserved, m.tvb(at + 12, 4))
  tree:add(f.seal_key, m.tvb(at + 16, 32))
  tree:add(f.seal_tag, m.tvb(at + 48, 16))
  tree:append_text(": for " .. text)
  m.sealed_for = text
  if Word(m.tvb, at + 12, true) ~= 0 then
    Break(m, reserved, x.sign, NOT_AUTHENTIC, "the reserved bytes of the seal are not zero")
  elseif not IsUser(user) then
    Break(m, tree, x.sign, NOT_AUTHENTIC, "the user that it is sealed for is not valid")
  end
end

-- ---- Messages ----

-- Shows a signed message of another companion: the header if it is valid, the rest as bytes.
local function ShowForeignSigned(m, at, length)
  if length < HEADER or not Captured(m, m.item, at, HEADER) then return AddBytes(m, m.item, f.undecoded, at, length) end
  local form, fault = FormOf(m.tvb, at, HEADER)
  if fault then return AddBytes(m, m.item, f.undecoded, at, length) end
  ShowHeader(m, at, form)
  AddBytes(m, m.item, f.undecoded, at + HEADER, length - HEADER)
end

local function ShowSealed(m, envelope, at, length)
  local trailer = at + length - TRAILER
  AddBytes(m, m.item, f.encrypted, at, length - TRAILER - SEAL)
  ShowSeal(m, trailer - SEAL)
  if not m.error then CheckTrailer(m, envelope, trailer, SEALED_MARK) end
  ShowTrailer(m, trailer)
end

local function ShowSigned(m, shape)
  local envelope = ShowEnvelope(m, shape.form)
  local at, length = m.at + ENVELOPE, shape.announced
  if m.error then return AddBytes(m, m.item, f.undecoded, at, math.min(shape.total, shape.present) - ENVELOPE) end
  if not mqnode.prefs.companion then return ShowForeignSigned(m, at, length) end
  local sealed = m.version == 2
  if length <= HEADER + TRAILER + (sealed and SEAL or 0) then
    Break(m, envelope, x.sign, NOT_AUTHENTIC, "%d bytes are too short for a signature", length)
    return AddBytes(m, m.item, f.undecoded, at, length)
  end
  if sealed then return ShowSealed(m, envelope, at, length) end
  if not Captured(m, m.item, at, HEADER) then return AddBytes(m, m.item, f.undecoded, at, length) end
  local form, fault, info = FormOf(m.tvb, at, HEADER)
  if fault then
    Break(m, envelope, info, NOT_AUTHENTIC, "behind the envelope: %s", fault)
    return AddBytes(m, m.item, f.undecoded, at, length)
  end
  local header = ShowHeader(m, at, form)
  CheckSigned(m, envelope, header, at, length)
  if m.error then return AddBytes(m, m.item, f.undecoded, at + HEADER, length - HEADER) end
  ShowBody(m, at + HEADER, form, at)
  ShowTrailer(m, at + length - TRAILER)
end

local function ShowPlain(m, shape)
  ShowHeader(m, m.at, shape.form)
  if not m.error then return ShowBody(m, m.at + HEADER, shape.form, m.at) end
  AddBytes(m, m.item, f.undecoded, m.at + HEADER, math.min(shape.total, shape.present) - HEADER)
end

-- Determines what the bytes at `at` are, of which `present` were on the wire:
--   need        this many bytes are needed to tell; nothing else is set then
--   header      136 or 32; nil if the first word is neither
--   form        the sender's
--   announced   bytes after the header, total  bytes of the message. After a fault: 0 and the header alone, which is
--               what a reader of a stream drops
--   fault, info the rule that is broken, if any
local function ShapeOf(tvb, at, present)
  if not Held(tvb, at, 4) then return {need = 4, present = present} end
  local header
  for _, length in ipairs({HEADER, ENVELOPE}) do
    if Word(tvb, at, true) == length or Word(tvb, at, false) == length then header = length end
  end
  local shape = {header = header, present = present, total = header, announced = 0}
  if not header then
    shape.fault = string.format("the first word is %d, neither %d nor %d", Word(tvb, at, true), HEADER, ENVELOPE)
    shape.info = x.first
    return shape
  end
  if not Held(tvb, at, header) then return {need = header, present = present} end
  shape.form, shape.fault, shape.info = FormOf(tvb, at, header)
  if shape.fault then return shape end
  local announced = Word(tvb, at + (header == HEADER and 64 or 16), shape.form.little)
  if announced == 0 or announced > MAX_MESSAGE - header then
    shape.fault = announced == 0 and "nothing follows the header" or
      string.format("%d bytes follow the header, a message has at most %d", announced, MAX_MESSAGE)
    shape.info = x.length
    return shape
  end
  shape.announced, shape.total = announced, header + announced
  return shape
end

local function Describe(m, shape)
  local kind = shape.header ~= ENVELOPE and "" or m.version == 2 and "sealed " or "signed "
  local text
  if m.command then
    text = string.format("%scommand %d from %s", kind, m.command, m.user)
    if #m.params > 0 then text = text .. ": " .. table.concat(m.params, ", ") end
    if m.count > #m.params and #m.params >= INFO_PARAMS then text = text .. ", ..." end
  else
    local user = m.user or m.env_text
    text = kind .. "message" .. (user and " from " .. user or "")
    if m.sealed_for then text = text .. " for " .. m.sealed_for end
  end
  if m.fault then text = string.format("%s [error %d: %s]", text, m.error, m.fault) end
  if m.cut then text = text .. " [cut]" end
  return text
end

-- Shows one message, or bytes that are not a message, and returns the text for the Info column.
local function ShowMessage(tvb, at, pinfo, root, shape)
  local length = math.min(shape.total or shape.present, tvb:len() - at)
  local m = {tvb = tvb, pinfo = pinfo, at = at, params = {}}
  m.item = root:add(mqnode, tvb(at, length))
  if shape.fault then Break(m, m.item, shape.info, BAD_MESSAGE, "%s", shape.fault) end
  if shape.need then
    Captured(m, m.item, at, shape.need)
    AddBytes(m, m.item, f.undecoded, at, shape.present)
  elseif not shape.header then
    AddBytes(m, m.item, f.stray, at, shape.present)
  elseif not Held(tvb, at, shape.header) then
    AddBytes(m, m.item, f.undecoded, at, shape.present)
  elseif shape.header == HEADER then
    ShowPlain(m, shape)
  else
    ShowSigned(m, shape)
  end
  if shape.too_large then
    Break(m, m.item, x.room, BAD_MESSAGE, "a datagram of %d bytes, a node has room for %d", shape.present,
          DATAGRAM_ROOM)
  end
  if m.error then m.item:add(f.error, m.error):set_generated() end
  local text = Describe(m, shape)
  m.item:set_text("mqnode " .. text)
  return text
end

-- ---- Transports ----

-- Several calls may concern one frame: a reassembled message and what follows it. The fence keeps the earlier text.
local function ShowColumns(pinfo, texts)
  if #texts == 0 then return end
  pinfo.cols.protocol = "mqnode"
  pinfo.cols.info:clear()
  local before = tostring(pinfo.cols.info)  -- "(nil)" if no columns are requested
  local is_first = before == "" or before == "(nil)"
  pinfo.cols.info:append((is_first and "" or " | ") .. Shorten(table.concat(texts, " | "), INFO_LENGTH))
  pinfo.cols.info:fence()
end

-- Whether TCP was asked for the bytes that the message at `at` still lacks. It cannot be asked (can_desegment 0) if it
-- does not reassemble, or if packets were cut.
local function AskForMore(tvb, at, pinfo, shape)
  local lacking = (shape.need or shape.total or 0) - (tvb:len() - at)
  if lacking <= 0 or pinfo.can_desegment == 0 then return false end
  pinfo.desegment_offset = at
  -- A length for the header and then another one for the message would lose the message in the second of two passes.
  pinfo.desegment_len = shape.total and lacking or DESEGMENT_ONE_MORE_SEGMENT
  return true
end

local function DissectStream(tvb, pinfo, root)
  local at, texts = 0, {}
  while at < tvb:len() do
    local shape = ShapeOf(tvb, at, tvb:reported_len() - at)
    if AskForMore(tvb, at, pinfo, shape) then break end
    table.insert(texts, ShowMessage(tvb, at, pinfo, root, shape))
    at = at + (shape.total or shape.present)
  end
  ShowColumns(pinfo, texts)
end

-- A datagram is exactly one message.
local function DissectDatagram(tvb, pinfo, root)
  if tvb:len() == 0 then return end
  local present = tvb:reported_len()
  local shape = ShapeOf(tvb, 0, present)
  if shape.need and present < shape.need then
    shape.fault = string.format("a datagram of %d bytes is shorter than a header", present)
  elseif not shape.fault and shape.total and shape.total ~= present then
    shape.fault = string.format("the headers say %d bytes, the datagram has %d", shape.total, present)
  end
  if shape.fault then
    shape.need, shape.total, shape.info = nil, present, shape.info or x.size
  end
  shape.too_large = present > DATAGRAM_ROOM
  ShowColumns(pinfo, {ShowMessage(tvb, 0, pinfo, root, shape)})
end

local PT_UDP = 3

local function Dissect(tvb, pinfo, root)
  if pinfo.port_type == PT_UDP then return DissectDatagram(tvb, pinfo, root) end
  return DissectStream(tvb, pinfo, root)
end

mqnode.dissector = Dissect

-- The first 16 bytes of a message are nearly fixed, which is enough to recognise one.
local function IsMessage(tvb)
  if not Held(tvb, 0, 16) then return false end
  for _, length in ipairs({HEADER, ENVELOPE}) do
    local _, fault = FormOf(tvb, 0, length)
    if not fault then return true end
  end
  return false
end

local function Recognise(tvb, pinfo, root)
  if not IsMessage(tvb) then return false end
  pinfo.conversation = mqnode
  -- Not through mqnode.dissector: through a second dissector, TCP could not be asked for more bytes.
  Dissect(tvb, pinfo, root)
  return true
end

mqnode:register_heuristic("tcp", Recognise)
mqnode:register_heuristic("udp", Recognise)

local tables = {tcp_ports = DissectorTable.get("tcp.port"), udp_ports = DissectorTable.get("udp.port")}
local registered = {tcp_ports = "", udp_ports = ""}

for _, ports in pairs(tables) do ports:add_for_decode_as(mqnode) end

function mqnode.prefs_changed()
  for name, ports in pairs(tables) do
    if registered[name] ~= "" then ports:remove(registered[name], mqnode) end
    registered[name] = mqnode.prefs[name] or ""
    if registered[name] ~= "" then ports:add(registered[name], mqnode) end
  end
end
