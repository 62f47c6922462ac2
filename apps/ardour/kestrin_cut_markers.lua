ardour {
    ["type"]    = "EditorAction",
    name        = "Import Kestrin Cut Markers",
    author      = "Kestrin",
    description = [[
Adds the picture cuts of a Kestrin marker file to the session as location markers (the Location
Markers ruler, the Locations window), each at its exact sample: "VIDEO START" and one marker per
cut, named as in the file.

Reads either file Kestrin writes: the marker MIDI file (.mid) or the cut list (.tsv).

Kestrin's Session Start is the session's sample 0, the start of Ardour's timeline, whatever
timecode the session shows there (a session whose timecode is offset by an hour shows sample 0 as
01:00:00:00). Where the picture sits at its own timecode on Ardour's timeline instead (sample 0
being 00:00:00:00), scan with Session Start 00:00:00:00 and every marker lands on its timecode.

Files Kestrin did not write, and damaged ones, are refused with a message, and then no marker
is added. Markers already in the session with the same name at the same sample are left as they
are and not added twice.]]
}

-- Ardour keeps only the factory of an action script (without its upvalues), so everything the
-- action uses lives inside it. The dialogs are the action's only contact with the user: a test
-- loads this file with its own LuaDialog and answers them.
function factory () return function ()

    local title = "Import Kestrin Cut Markers"
    local trackName = "Kestrin Markers"
    local cutListFirstLine = "^# Kestrin cut list (%d+)$"
    local largestFileBytes = 64 * 1024 * 1024

    -- A refusal travels as a table through error(), so that a fault in this script (a string
    -- error) can still be told apart from a file that is not ours.
    local function refuse (reason)
        error ({ reason = reason }, 0)
    end

    --------------------------------------------------------------------------------------------
    -- Integer arithmetic. Positions are exact rationals (ticks × tempo, frames × rate); Lua 5.3
    -- integers are 64-bit, and these helpers keep the products inside them for a day of material
    -- at 192 kHz.

    local function gcd (a, b)
        while b ~= 0 do a, b = b, a % b end
        return a
    end

    -- round(a × b / c), halves rounded up, for a, b ≥ 0 and c > 0.
    local function mulDivRound (a, b, c)
        local g = gcd (b, c)
        b, c = b // g, c // g
        g = gcd (a, c)
        a, c = a // g, c // g
        local q, r = a // c, a % c
        -- a × b / c = q × b + r × b / c, and r < c keeps r × b small.
        local n = r * b
        local whole, rest = n // c, n % c
        if 2 * rest >= c then whole = whole + 1 end
        return q * b + whole
    end

    -- Marker names go to GTK, which needs UTF-8: bytes that are not are read as Latin-1.
    local function toUtf8 (s)
        if utf8.len (s) then return s end
        return (s:gsub ("[\128-\255]", function (c) return utf8.char (c:byte ()) end))
    end

    --------------------------------------------------------------------------------------------
    -- The marker MIDI file.

    -- Reads a variable-length quantity (at most four bytes) at i; returns it and the next index.
    local function readVlq (s, i, last)
        local v = 0
        for _ = 1, 4 do
            if i > last then refuse ("it is cut short inside an event") end
            local b = s:byte (i)
            i = i + 1
            v = (v << 7) | (b & 0x7F)
            if b < 0x80 then return v, i end
        end
        refuse ("it holds a number longer than four bytes, which MIDI does not allow")
    end

    -- Reads one track chunk (bytes first..last) into the shared lists.
    local function readTrack (s, first, last, into)
        local i, tick, status, named = first, 0, nil, false
        while i <= last do
            local delta
            delta, i = readVlq (s, i, last)
            tick = tick + delta
            if i > last then refuse ("it is cut short inside an event") end
            local b = s:byte (i)
            if b == 0xFF then
                if i + 1 > last then refuse ("it is cut short inside an event") end
                local kind = s:byte (i + 1)
                local length, j = readVlq (s, i + 2, last)
                if j + length - 1 > last then refuse ("it is cut short inside an event") end
                local data = s:sub (j, j + length - 1)
                i = j + length
                status = nil
                if kind == 0x2F then
                    return
                elseif kind == 0x51 then
                    if length ~= 3 then refuse ("it holds a tempo event of the wrong size") end
                    local usPerQuarter = string.unpack (">I3", data)
                    if usPerQuarter == 0 then refuse ("it holds a tempo of zero") end
                    into.tempos[#into.tempos + 1] = { tick = tick, us = usPerQuarter }
                elseif kind == 0x03 and not named then
                    named = true
                    into.names[#into.names + 1] = data
                elseif kind == 0x06 then
                    into.markers[#into.markers + 1] = { tick = tick, name = toUtf8 (data) }
                elseif kind == 0x7F and data:sub (1, 8) == "\x7DKestrin" then
                    into.rateEvents[#into.rateEvents + 1] = data
                end
            elseif b == 0xF0 or b == 0xF7 then
                local length, j = readVlq (s, i + 1, last)
                if j + length - 1 > last then refuse ("it is cut short inside an event") end
                i = j + length
                status = nil
            else
                if b >= 0x80 then
                    if b > 0xF0 then
                        refuse (string.format ("it holds the status byte %02X, which a MIDI file cannot", b))
                    end
                    status = b
                    i = i + 1
                elseif not status then
                    refuse ("an event starts with a data byte and no status before it")
                end
                local dataBytes = 2
                if status & 0xF0 == 0xC0 or status & 0xF0 == 0xD0 then dataBytes = 1 end
                if i + dataBytes - 1 > last then refuse ("it is cut short inside an event") end
                for k = i, i + dataBytes - 1 do
                    if s:byte (k) >= 0x80 then refuse ("a channel event has a status byte among its data") end
                end
                i = i + dataBytes
            end
        end
        refuse ("a track has no end-of-track event: the file is cut short")
    end

    -- Microseconds × ticks-per-quarter from tick 0 to `tick`: the tempo map's exact integral,
    -- 120 BPM until the first tempo event as MIDI files define.
    local function tickToScaledUs (tempos, tick)
        local total, atTick, us = 0, 0, 500000
        for _, t in ipairs (tempos) do
            if t.tick >= tick then break end
            total = total + (t.tick - atTick) * us
            atTick, us = t.tick, t.us
        end
        return total + (tick - atTick) * us
    end

    -- Returns the markers of a Kestrin marker MIDI file with their samples at `rate` Hz.
    local function readMidi (s, rate)
        if #s < 14 then refuse ("it is cut short inside the MIDI header") end
        local headerBytes, _, trackCount, division = string.unpack (">I4I2I2I2", s, 5)
        if headerBytes < 6 then refuse ("its MIDI header is too short") end
        if division & 0x8000 ~= 0 then
            refuse ("it counts time in timecode frames; Kestrin's files count ticks per quarter note")
        end
        if division == 0 then refuse ("its MIDI header gives zero ticks per quarter note") end

        local found = { tempos = {}, names = {}, markers = {}, rateEvents = {} }
        local i, tracks = 9 + headerBytes, 0
        while i <= #s do
            if i + 7 > #s then refuse ("it is cut short inside a chunk header") end
            local id, length = s:sub (i, i + 3), string.unpack (">I4", s, i + 4)
            local last = i + 7 + length
            if last > #s then refuse ("it is cut short: a chunk runs past the end of the file") end
            if id == "MTrk" then
                readTrack (s, i + 8, last, found)
                tracks = tracks + 1
            end
            i = last + 1
        end
        if tracks < trackCount then
            refuse (string.format ("its header announces %d tracks but it holds %d: the file is cut short",
                trackCount, tracks))
        end

        local ours = #found.rateEvents > 0
        for _, name in ipairs (found.names) do ours = ours or name == trackName end
        if not ours then
            refuse ("it is a MIDI file, but not one Kestrin wrote (it has neither Kestrin's frame rate "
                .. "event nor a track named \"" .. trackName .. "\")")
        end

        -- The frame rate event: 7D "Kestrin", format version, rate numerator and denominator
        -- (16-bit), flags. With it each marker is put on its exact frame; a file from before it
        -- (the plain layout) is placed to the nearest sample of its ticks.
        local num, den
        local event = found.rateEvents[1]
        if event then
            if #event < 9 then refuse ("its Kestrin event is cut short") end
            local version = event:byte (9)
            if version ~= 1 then
                refuse (string.format (
                    "it was written in Kestrin's marker format %d; this script reads format 1", version))
            end
            if #event < 14 then refuse ("its Kestrin event is cut short") end
            num, den = string.unpack (">I2I2", event, 10)
            if num == 0 or den == 0 then refuse ("its Kestrin event gives no frame rate") end
        end

        table.sort (found.tempos, function (a, b) return a.tick < b.tick end)
        local perSecond = division * 1000000
        local markers = {}
        for _, m in ipairs (found.markers) do
            local scaled = tickToScaledUs (found.tempos, m.tick)
            local sample
            if num then
                local frame = mulDivRound (scaled, num, perSecond * den)
                sample = mulDivRound (frame, rate * den, num)
            else
                sample = mulDivRound (scaled, rate, perSecond)
            end
            markers[#markers + 1] = { name = m.name, sample = sample }
        end
        return markers
    end

    --------------------------------------------------------------------------------------------
    -- The cut list: "# key<TAB>value" header lines, a line of column names, one row per cut.

    local function splitTabs (line)
        local fields = {}
        for field in (line .. "\t"):gmatch ("(.-)\t") do fields[#fields + 1] = field end
        return fields
    end

    local function wholeNumber (text)
        if not text or not text:match ("^%d+$") or #text > 12 then return nil end
        return math.tointeger (tonumber (text))
    end

    local function readCutList (text, rate)
        local lines = {}
        for line in (text .. "\n"):gmatch ("(.-)\n") do lines[#lines + 1] = (line:gsub ("\r$", "")) end
        local version = lines[1]:match (cutListFirstLine)
        if version ~= "1" then
            refuse ("it was written in Kestrin's cut list format " .. version
                .. "; this script reads format 1")
        end

        local header, n = {}, 2
        while lines[n] and lines[n]:sub (1, 1) == "#" do
            local key, value = lines[n]:match ("^# ([^\t]+)\t(.*)$")
            if key then header[key] = value end
            n = n + 1
        end
        local columns = {}
        for index, name in ipairs (splitTabs (lines[n] or "")) do columns[name] = index end
        if not columns.frame or not columns.name then
            refuse (string.format ("line %d should name the columns (frame, seconds, timecode, name)", n))
        end
        local columnCount = #splitTabs (lines[n])

        local rateText = header["frame rate"]
        local num, den = (rateText or ""):match ("^(%d+)/(%d+)$")
        if not num then num, den = (rateText or ""):match ("^(%d+)$"), "1" end
        num, den = wholeNumber (num), wholeNumber (den)
        if not num or not den or num == 0 or den == 0 then
            refuse ("its header gives no frame rate (a line \"# frame rate\" with a value such as "
                .. "30000/1001)")
        end
        local videoStart = wholeNumber (header["video start frame"])
        if not videoStart then
            refuse ("its header gives no video start frame (a line \"# video start frame\" with a "
                .. "whole number)")
        end

        local function at (frame) return mulDivRound (frame, rate * den, num) end
        local markers = { { name = "VIDEO START", sample = at (videoStart) } }
        for row = n + 1, #lines do
            if lines[row] ~= "" then
                local fields = splitTabs (lines[row])
                if #fields ~= columnCount then
                    refuse (string.format ("line %d has %d fields where the column line has %d",
                        row, #fields, columnCount))
                end
                local frame = wholeNumber (fields[columns.frame])
                if not frame then
                    refuse (string.format ("line %d gives the frame \"%s\", which is not a whole number",
                        row, fields[columns.frame]))
                end
                markers[#markers + 1] = {
                    name = toUtf8 (fields[columns.name]), sample = at (videoStart + frame) }
            end
        end
        return markers
    end

    --------------------------------------------------------------------------------------------
    -- The session.

    -- Adds one location marker per entry; a marker already there with the same name at the same
    -- sample is kept and counted. Returns the counts of added and present markers.
    local function addMarkers (markers)
        local locations = Session:locations ()
        -- The locations that were there before, by sample: Ardour names each new marker itself
        -- ("mark1", ...), and the one to rename is the one at its sample that is not among these.
        local known = {}
        for l in locations:list ():iter () do
            local at = l:start ():samples ()
            known[at] = known[at] or {}
            table.insert (known[at], l)
        end
        local function isKnown (location, at)
            for _, l in ipairs (known[at] or {}) do
                if l == location then return true end
            end
            return false
        end

        -- With "Name new markers" on, Ardour would ask for every name: the file gives them.
        local config = ArdourUI and ArdourUI.config and ArdourUI.config ()
        local asksNames = config and config:get_name_new_markers ()
        if asksNames then config:set_name_new_markers (false) end

        -- Each marker is an undo step of its own: wrapping them all in one reversible command
        -- (Session:begin_reversible_command) made Ardour 7.3 lose the first one from the history.
        local added, present = 0, 0
        local ok, err = pcall (function ()
            for _, m in ipairs (markers) do
                local there = false
                for _, l in ipairs (known[m.sample] or {}) do
                    there = there or (l:is_mark () and l:name () == m.name)
                end
                if there then
                    present = present + 1
                else
                    local where = Temporal.timepos_t (m.sample)
                    Editor:mouse_add_new_marker (where, ARDOUR.LocationFlags.IsMark, 0)
                    local new = locations:mark_at (where, Temporal.timecnt_t (1))
                    if not new or new:start ():samples () ~= m.sample or isKnown (new, m.sample) then
                        new = nil
                        for l in locations:list ():iter () do
                            local at = l:start ():samples ()
                            if l:is_mark () and at == m.sample and not isKnown (l, at) then
                                new = l
                                break
                            end
                        end
                    end
                    if not new then error ("Ardour did not add a marker at sample " .. m.sample, 0) end
                    new:set_name (m.name)
                    known[m.sample] = known[m.sample] or {}
                    table.insert (known[m.sample], new)
                    added = added + 1
                end
            end
        end)
        if asksNames then config:set_name_new_markers (true) end
        return added, present, not ok and tostring (err) or nil
    end

    --------------------------------------------------------------------------------------------

    local function tell (text, kind)
        LuaDialog.Message (title, text, kind, LuaDialog.ButtonType.Close):run ()
    end

    -- Asks for the file, reads it whole, and only then adds its markers: a file that is refused
    -- leaves the session as it was.
    local function run ()
        local answer = LuaDialog.Dialog (title, {
            { type = "file", key = "file", title = "Kestrin marker file (.mid) or cut list",
              path = Session:path () },
        }):run ()
        if not answer or not answer["file"] or answer["file"] == "" then return end
        local path = answer["file"]
        local nominalRate = Session:nominal_sample_rate ()
        local rate = math.tointeger (nominalRate) or math.floor (nominalRate + 0.5)

        local ok, markers = pcall (function ()
            local file, why = io.open (path, "rb")
            if not file then refuse ("it cannot be opened (" .. tostring (why) .. ")") end
            local size = file:seek ("end")
            file:seek ("set")
            if size and size > largestFileBytes then
                file:close ()
                refuse ("it is far too large to be a Kestrin marker file")
            end
            local bytes = file:read ("a") or ""
            file:close ()
            if bytes:sub (1, 4) == "MThd" then return readMidi (bytes, rate) end
            if bytes:match ("^[^\n]*"):gsub ("\r$", ""):match (cutListFirstLine) then
                return readCutList (bytes, rate)
            end
            refuse ("it is neither a Kestrin marker file (.mid) nor a Kestrin cut list")
        end)
        if not ok then
            local reason = type (markers) == "table" and markers.reason
                or ("the script failed: " .. tostring (markers))
            tell (string.format ("Cannot import \"%s\": %s.\n\nNo marker was added.", path, reason),
                LuaDialog.MessageType.Error)
            return
        end

        local added, present, failure = addMarkers (markers)
        if failure then
            tell (string.format ("Adding the markers of \"%s\" failed after %d of %d: %s", path, added,
                #markers, failure), LuaDialog.MessageType.Error)
            return
        end
        local text
        if #markers == 0 then
            text = string.format ("\"%s\" holds no markers.", path)
        else
            text = string.format ("Added %d marker%s from \"%s\".", added, added == 1 and "" or "s", path)
            if present > 0 then
                text = text .. string.format (" %d %s already in the session.", present,
                    present == 1 and "was" or "were")
            end
        end
        tell (text, LuaDialog.MessageType.Info)
    end

    local ok, err = pcall (run)
    if not ok then
        pcall (tell, "The action failed: " .. tostring (err), LuaDialog.MessageType.Error)
    end
end end
