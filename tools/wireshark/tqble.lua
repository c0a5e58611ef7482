-- TQBle charging post frames in Wireshark: the requests written to FFF3 and the answers
-- notified on FFF4, with their fields, command, checksum and the pieces of an answer put
-- back together. Found through the characteristic UUIDs when the capture has the GATT
-- discovery, else by "Decode As..." on the ATT handle or the two handle preferences.
-- Also reads ATT Multiple Handle Value Notifications (opcode 0x23), which Wireshark 4.0
-- leaves undecoded. Use: wireshark -X lua_script:tqble.lua, or install it as a plugin.

local tqble = Proto("tqble", "TQBle charging post frame")

local commands = {
  [0xB0] = "synchroTime", [0xB1] = "querySystemInfo", [0xB2] = "setVolume",
  [0xB3] = "orderCharger", [0xB4] = "startCharging", [0xB5] = "queryChargerState",
  [0xB6] = "stopCharge", [0xB7] = "queryHistoryChargingList",
  [0xB8] = "queryCumulationElecQuantity", [0x34] = "queryHistoryErrorLogList",
  [0x32] = "runningDiagnosticInfo",
}

local f = {
  start = ProtoField.uint8("tqble.start", "Start byte", base.HEX),
  command = ProtoField.uint8("tqble.command", "Command", base.HEX, commands),
  status = ProtoField.uint8("tqble.status", "Status", base.HEX),
  length = ProtoField.uint16("tqble.length", "Body length", base.DEC),
  checksum = ProtoField.uint8("tqble.checksum", "Checksum", base.HEX),
  checksum_status = ProtoField.string("tqble.checksum_status", "Checksum status"),
  body = ProtoField.bytes("tqble.body", "Body"),
  direction = ProtoField.string("tqble.direction", "Direction"),
  piece = ProtoField.bytes("tqble.piece", "Piece of an answer"),
  pieces = ProtoField.uint16("tqble.pieces", "Pieces reassembled", base.DEC),
  missing = ProtoField.uint16("tqble.missing", "Bytes missing", base.DEC),
}
tqble.fields = f

tqble.prefs.write_handle = Pref.uint("FFF3 handle", 0, "ATT handle of the write characteristic (0: from the capture)")
tqble.prefs.notify_handle = Pref.uint("FFF4 handle", 0, "ATT handle of the notify characteristic (0: from the capture)")

local f_att_opcode = Field.new("btatt.opcode")
local f_btatt = Field.new("btatt")

-- The answer being gathered per direction, and what each piece's frame number finished.
local gathering = {}
local finished = {}

function tqble.init()
  gathering = {}
  finished = {}
end

local function dissect_frame(tvb, pinfo, tree, label)
  local t = tree:add(tqble, tvb(), label)
  if tvb:len() < 8 then
    t:add_expert_info(PI_MALFORMED, PI_WARN, "shorter than the 8-byte header")
    return
  end
  local code = tvb(1, 1):uint()
  local body_length = tvb(4, 2):le_uint()
  t:add(f.start, tvb(0, 1))
  t:add(f.command, tvb(1, 1))
  t:add(f.status, tvb(2, 1))
  local lt = t:add_le(f.length, tvb(4, 2))
  if body_length ~= tvb:len() - 8 then
    lt:add_expert_info(PI_MALFORMED, PI_WARN, "the frame has " .. (tvb:len() - 8) .. " body bytes")
  end
  local sum = 0
  for i = 0, tvb:len() - 1 do
    if i ~= 7 then sum = bit.bxor(sum, tvb(i, 1):uint()) end
  end
  t:add(f.checksum, tvb(7, 1))
  local good = sum == tvb(7, 1):uint()
  local st = t:add(f.checksum_status, good and "good" or string.format("bad (0x%02X expected)", sum))
  if not good then st:add_expert_info(PI_CHECKSUM, PI_WARN, "bad checksum") end
  if tvb:len() > 8 then t:add(f.body, tvb(8)) end
  local name = commands[code] or string.format("0x%02X", code)
  pinfo.cols.protocol = "TQBle"
  pinfo.cols.info:append(" " .. label .. " " .. name .. (good and "" or " [bad checksum]"))
  return t
end

-- One ATT value on FFF3 (a request) or FFF4 (a piece of an answer).
local function dissect_value(tvb, pinfo, tree, is_write)
  if is_write then
    local t = dissect_frame(tvb, pinfo, tree, "request")
    if t then t:add(f.direction, "request (FFF3)") end
    return
  end
  local key = tostring(pinfo.src) .. ">" .. tostring(pinfo.dst)
  if not pinfo.visited then
    local g = gathering[key]
    if tvb:len() >= 8 and tvb(0, 1):uint() == 0x68 then
      g = { bytes = ByteArray.new(), pieces = 0, expected = 8 + tvb(4, 2):le_uint() }
      gathering[key] = g
    end
    if g then
      g.bytes:append(tvb:bytes())
      g.pieces = g.pieces + 1
      if g.bytes:len() >= g.expected then
        finished[pinfo.number] = { bytes = g.bytes, pieces = g.pieces }
        gathering[key] = nil
      else
        finished[pinfo.number] = { partial = g.expected - g.bytes:len() }
      end
    end
  end
  local done = finished[pinfo.number]
  if done and done.bytes then
    local whole = done.bytes:tvb("Reassembled answer")
    local t = dissect_frame(whole, pinfo, tree, "answer")
    if t then
      t:add(f.direction, "answer (FFF4)")
      t:add(f.pieces, done.pieces)
    end
  else
    local t = tree:add(tqble, tvb(), "piece of an answer")
    t:add(f.piece, tvb())
    if done then t:add(f.missing, done.partial) end
    pinfo.cols.protocol = "TQBle"
    pinfo.cols.info:append(" answer piece")
  end
end

local function is_write_opcode(opcode)
  return opcode == 0x12 or opcode == 0x52
end

-- Called by the ATT dissector for the UUIDs and for "Decode As" on a handle.
function tqble.dissector(tvb, pinfo, tree)
  local opcode = f_att_opcode()
  if not opcode then return 0 end
  done_by_att[pinfo.number] = true
  dissect_value(tvb, pinfo, tree, is_write_opcode(opcode.value))
  return tvb:len()
end

local uuids = DissectorTable.get("bluetooth.uuid")
for _, uuid in ipairs({ "fff3", "fff4", "0000fff300001000800000805f9b34fb",
                        "0000fff400001000800000805f9b34fb" }) do
  uuids:add(uuid, tqble)
end
local handles = DissectorTable.get("btatt.handle")
handles:add_for_decode_as(tqble)

-- What the ATT dissector leaves out: values on handles given in the preferences or learnt
-- from the first frame seen on them, multiple notifications (0x23), and ATT on EATT
-- channels that Wireshark 4.0 shows as bare L2CAP payload (an SDU length, then the PDU).
local f_l2cap_cid = Field.new("btl2cap.cid")
local f_l2cap_payload = Field.new("btl2cap.payload")
local f_l2cap_sdu = Field.new("btl2cap.le_sdu_length")
local learnt = {}
local done_by_att = {}

local function att_pdu()
  local att = f_btatt()
  if att then return att.range:tvb() end
  local cid, payload = f_l2cap_cid(), f_l2cap_payload()
  if not cid or not payload or cid.value < 0x40 then return nil end
  local range = payload.range
  if f_l2cap_sdu() then return range:tvb() end  -- the channel's opening was seen
  if range:len() < 3 or range(0, 2):le_uint() ~= range:len() - 2 then return nil end
  return range(2):tvb()
end

local function ours(handle, is_write, value)
  local role = is_write and "write" or "notify"
  local pref = is_write and tqble.prefs.write_handle or tqble.prefs.notify_handle
  if pref ~= 0 then return handle == pref end
  if learnt[role] == nil and value:len() >= 8 and value(0, 1):uint() == 0x68
      and commands[value(1, 1):uint()] then
    learnt[role] = handle
  end
  return learnt[role] == handle
end

local multi = Proto("tqble_att", "TQBle values the ATT dissector leaves out")

function multi.dissector(tvb, pinfo, tree)
  if done_by_att[pinfo.number] then return end
  local pdu = att_pdu()
  if not pdu or pdu:len() < 3 then return end
  local opcode = pdu(0, 1):uint()
  local is_write = is_write_opcode(opcode)
  if opcode == 0x23 then
    local at = 1
    while at + 4 <= pdu:len() do
      local handle = pdu(at, 2):le_uint()
      local length = pdu(at + 2, 2):le_uint()
      if at + 4 + length > pdu:len() or length == 0 then break end
      local value = pdu(at + 4, length):tvb()
      if ours(handle, false, value) then dissect_value(value, pinfo, tree, false) end
      at = at + 4 + length
    end
  elseif (is_write or opcode == 0x1B or opcode == 0x1D) and pdu:len() > 3 then
    local value = pdu(3):tvb()
    if ours(pdu(1, 2):le_uint(), is_write, value) then dissect_value(value, pinfo, tree, is_write) end
  end
end

register_postdissector(multi)
