-- SPDX-License-Identifier: LGPL-2.1-or-later
--
-- Wireshark dissector for libzelgvc channels: message frames, compressed blocks, encrypted records.
--
-- Copy this file to the personal Lua plugins folder (Help > About Wireshark > Folders), or load it
-- with tshark -X lua_script:zelgvc.lua. Set the port in the preferences of the protocol, with
-- -o zelgvc.ports:5000, or with "Decode as". The dissector shows the layer next to the socket:
-- records with encryption, blocks with compression alone, frames without stages.

local zelgvc = Proto("zelgvc", "libzelgvc channel")

local FRAMES, BLOCKS, RECORDS, AUTO = 1, 2, 3, 0

zelgvc.prefs.ports = Pref.range("TCP ports", "5000", "The ports that channels use", 65535)
zelgvc.prefs.layer = Pref.enum("Layer next to the socket", AUTO,
  "What the bytes of a connection are", {
    { 1, "Found out from the first bytes", AUTO },
    { 2, "Message frames", FRAMES },
    { 3, "Compressed blocks", BLOCKS },
    { 4, "Encrypted records", RECORDS },
  }, false)
zelgvc.prefs.desegment = Pref.bool("Reassemble units that span several TCP segments", true,
  "TCP itself must be allowed to reassemble as well")

local fields = {
  frame = ProtoField.none("zelgvc.frame", "Message frame"),
  frame_length = ProtoField.int32("zelgvc.frame.length", "Length", base.DEC),
  frame_payload = ProtoField.bytes("zelgvc.frame.payload", "Message"),
  frame_text = ProtoField.string("zelgvc.frame.text", "Message as text"),
  block = ProtoField.none("zelgvc.block", "Compressed block"),
  block_payload_size = ProtoField.uint32("zelgvc.block.payload_size", "Compressed size", base.DEC),
  block_content_size = ProtoField.uint32("zelgvc.block.content_size", "Uncompressed size", base.DEC),
  block_payload = ProtoField.bytes("zelgvc.block.payload", "LZO1X stream"),
  record = ProtoField.none("zelgvc.record", "Encrypted record"),
  record_length = ProtoField.uint64("zelgvc.record.length", "Length", base.DEC),
  record_iv = ProtoField.bytes("zelgvc.record.iv", "Initialisation vector"),
  record_ciphertext = ProtoField.bytes("zelgvc.record.ciphertext", "Cipher text"),
}
zelgvc.fields = fields

local bad_length = ProtoExpert.new("zelgvc.bad_length", "A length that cannot be",
  expert.group.MALFORMED, expert.severity.ERROR)
zelgvc.experts = { bad_length }

local tcp_stream = Field.new("tcp.stream")

-- The layer of each TCP stream, once its first bytes have been seen.
local layers = {}

function zelgvc.init()
  layers = {}
end

-- The largest plausible length. A larger length would make the dissector wait for ever.
local MOST = 0x7fffffff

-- Each layer has the size of its header, a function for the size of the unit at an offset (nil if no
-- unit can start there), and a function that shows a unit.

local frames = { header = 4, name = "frame" }

function frames.size(tvb, offset)
  local length = tvb(offset, 4):le_int()
  return length >= 0 and 4 + length or nil
end

function frames.show(tvb, tree, pinfo)
  local length = tvb(0, 4):le_int()
  tree = tree:add(fields.frame, tvb())
  tree:append_text(", " .. length .. " bytes")
  tree:add_le(fields.frame_length, tvb(0, 4))
  if length > 0 then
    local payload = tvb(4)
    tree:add(fields.frame_payload, payload)
    local text = payload:raw(0, math.min(payload:len(), 200))
    if not text:find("[%z\1-\8\14-\31\127-\255]") then
      tree:add(fields.frame_text, payload(0, math.min(payload:len(), 200)))
    end
  end
  return "Frame " .. length
end

local blocks = { header = 8, name = "block" }

-- No encoder enlarges its input by more, and a byte of a stream decodes to 255 bytes at most.
local function plausible_block(payload, content)
  if payload == 0 or content == 0 then
    return payload == 0 and content == 0
  end
  return payload <= content + content / 8 + 1024 and content <= payload * 255
end

function blocks.size(tvb, offset)
  local payload, content = tvb(offset, 4):le_uint(), tvb(offset + 4, 4):le_uint()
  if payload > MOST or not plausible_block(payload, content) then
    return nil
  end
  return 8 + payload
end

function blocks.show(tvb, tree, pinfo)
  local payload, content = tvb(0, 4):le_uint(), tvb(4, 4):le_uint()
  tree = tree:add(fields.block, tvb())
  tree:append_text(", " .. content .. " bytes in " .. payload)
  tree:add_le(fields.block_payload_size, tvb(0, 4))
  tree:add_le(fields.block_content_size, tvb(4, 4))
  if payload > 0 then
    tree:add(fields.block_payload, tvb(8))
  end
  return "Block " .. content
end

local records = { header = 8, name = "record" }

function records.size(tvb, offset)
  local low, high = tvb(offset, 4):le_uint(), tvb(offset + 4, 4):le_uint()
  if high ~= 0 or low > MOST or low % 16 ~= 0 then
    return nil
  end
  return low == 0 and 24 or 8 + low
end

function records.show(tvb, tree, pinfo)
  local length = tvb(0, 4):le_uint()
  tree = tree:add(fields.record, tvb())
  tree:add_le(fields.record_length, tvb(0, 8))
  if length == 0 then
    tree:append_text(", initialisation vector")
    tree:add(fields.record_iv, tvb(8, 16))
    return "IV"
  end
  tree:append_text(", " .. length .. " bytes")
  tree:add(fields.record_ciphertext, tvb(8))
  return "Record " .. length
end

local by_preference = { [FRAMES] = frames, [BLOCKS] = blocks, [RECORDS] = records }

-- An encrypted stream starts with 8 zero bytes and the IV. The two sizes of a block fit each other;
-- the start of a frame rarely looks so.
local function guess(tvb)
  if tvb:len() < 8 then
    return frames
  end
  if tvb:len() >= 24 and tvb(0, 4):le_uint() == 0 and tvb(4, 4):le_uint() == 0 then
    return records
  end
  local payload, content = tvb(0, 4):le_uint(), tvb(4, 4):le_uint()
  if payload > 0 and payload <= MOST and plausible_block(payload, content) then
    return blocks
  end
  return frames
end

local function layer_of(tvb)
  local chosen = by_preference[zelgvc.prefs.layer]
  if chosen then
    return chosen
  end
  local stream = tcp_stream()
  local key = stream and stream.value or -1
  layers[key] = layers[key] or guess(tvb)
  return layers[key]
end

-- The names of the units in the packet.
local shown

-- The size of the unit at an offset; at least that of its header, which may be incomplete.
local function size_at(tvb, offset)
  local layer = layer_of(tvb)
  if tvb:len() - offset < layer.header then
    return layer.header
  end
  return layer.size(tvb, offset)
end

local function unit_size(tvb, pinfo, offset)
  return size_at(tvb, offset) or tvb:len() - offset
end

local function show_unit(tvb, pinfo, tree)
  local layer = layer_of(tvb)
  local size = size_at(tvb, 0)
  if not size then
    local item = tree:add(fields[layer.name], tvb())
    item:append_text(", damaged or something else")
    item:add_proto_expert_info(bad_length)
    shown[#shown + 1] = "damaged"
  elseif size > tvb:len() then
    tree:add(fields[layer.name], tvb()):append_text(", continued elsewhere")
  else
    shown[#shown + 1] = layer.show(tvb, tree, pinfo)
  end
  return tvb:len()
end

function zelgvc.dissector(tvb, pinfo, root)
  shown = {}
  pinfo.cols.protocol = "ZELGVC"
  dissect_tcp_pdus(tvb, root:add(zelgvc, tvb()), layer_of(tvb).header, unit_size, show_unit,
    zelgvc.prefs.desegment)
  if #shown > 0 then
    pinfo.cols.info = table.concat(shown, ", ")
  end
  return tvb:len()
end

local registered
local tcp_port = DissectorTable.get("tcp.port")

local function register()
  if registered then
    tcp_port:remove(registered, zelgvc)
  end
  registered = zelgvc.prefs.ports
  tcp_port:add(registered, zelgvc)
end

zelgvc.prefs_changed = register
register()
