ardour {
    ["type"]    = "SessionInit",
    name        = "KestrinMarkerTest",
    description = [[Runs the jobs listed in $KESTRIN_JOBS on the new session and reports what
Ardour made of them in $KESTRIN_REPORT (written under another name and renamed when complete).]]
}

-- Jobs, one a line, fields separated by tabs:
--   action <label> <file> [keep]   run the Import Kestrin Cut Markers action ($KESTRIN_ACTION) with
--                                  its dialogs answered by a stub: <file> is chosen, messages are
--                                  recorded; the markers it adds are removed again unless "keep"
--   usermark <sample> <name>       add a marker as a user would, before the action runs
--   import <label> <file> use|ignore
--                                  import a MIDI file as the Import dialog does, with "Import MIDI
--                                  markers" ticked and "Use MIDI Tempo Map" ticked or not
--   zoom <samples per pixel> <from> <end>
--                                  show the session from sample <from> at that zoom, and end it
--                                  at sample <end>
-- Report lines (tab-separated):
--   SR <rate>
--   MSG <label> <message type> <text>          a message the action showed
--   ADDED <label> <name> <sample>              a location the action added
--   CHANGED <label> <name> <sample>            a location there before that the action renamed,
--                                              moved or removed
--   CUE <label> <name> <sample>                a marker inside a region imported under <label>
--   ERROR <text>                               this script failed
--   END
function factory () return function ()
    local reportPath = os.getenv ("KESTRIN_REPORT")
    local out = assert (io.open (reportPath .. ".part", "w"))
    local function report (...)
        local fields = {}
        for i, v in ipairs ({ ... }) do fields[i] = (tostring (v):gsub ("[\t\n]", " ")) end
        out:write (table.concat (fields, "\t") .. "\n")
        out:flush ()
    end

    local function snapshot ()
        local list = {}
        for l in Session:locations ():list ():iter () do
            list[#list + 1] = { location = l, name = l:name (), sample = l:start ():samples () }
        end
        return list
    end

    local function runAction (label, file, keep)
        local source = assert (io.open (os.getenv ("KESTRIN_ACTION"), "r")):read ("a")
        local messageTypes = {}
        for _, kind in ipairs ({ "Info", "Warning", "Question", "Error" }) do
            messageTypes[LuaDialog.MessageType[kind]] = kind
        end
        local stub = {
            Dialog = function () return { run = function () return { file = file } end } end,
            Message = function (_, text, kind)
                return { run = function ()
                    report ("MSG", label, messageTypes[kind] or tostring (kind), text)
                    return LuaDialog.Response.OK
                end }
            end,
            MessageType = LuaDialog.MessageType,
            ButtonType = LuaDialog.ButtonType,
            Response = LuaDialog.Response,
        }
        local env = setmetatable ({ LuaDialog = stub, ardour = function () end },
                                  { __index = _ENV })
        local before = snapshot ()
        assert (load (source, "=kestrin_cut_markers.lua", "t", env)) ()
        -- As Ardour runs an action: the factory alone, without the upvalues of the file.
        local factory = assert (load (string.dump (env.factory, true), "=factory", "b", env))
        factory () ()

        local after = snapshot ()
        local added = {}
        for _, now in ipairs (after) do
            local old = nil
            for _, b in ipairs (before) do
                if b.location == now.location then old = b break end
            end
            if not old then
                report ("ADDED", label, now.name, now.sample)
                added[#added + 1] = now.location
            elseif old.name ~= now.name or old.sample ~= now.sample then
                report ("CHANGED", label, old.name, old.sample)
            end
        end
        for _, b in ipairs (before) do
            local still = false
            for _, now in ipairs (after) do still = still or now.location == b.location end
            if not still then report ("CHANGED", label, b.name, b.sample) end
        end
        if not keep then
            for _, l in ipairs (added) do Session:locations ():remove (l) end
        end
    end

    -- The import each source came from, found through the tracks an import adds.
    local labelOfSource = {}
    local function trackNames ()
        local names = {}
        for t in Session:get_tracks ():iter () do names[t:name ()] = t end
        return names
    end

    local function import (label, file, tempo)
        local before = trackNames ()
        local files = C.StringVector ()
        files:push_back (file)
        local disposition = ARDOUR.MidiTempoMapDisposition.SMFTempoUse
        if tempo == "ignore" then disposition = ARDOUR.MidiTempoMapDisposition.SMFTempoIgnore end
        Editor:do_import (files, Editing.ImportDistinctFiles, Editing.ImportAsTrack,
            ARDOUR.SrcQuality.SrcBest, ARDOUR.MidiTrackNameSource.SMFTrackName, disposition,
            Temporal.timepos_t (0), ARDOUR.PluginInfo (), ARDOUR.Track (), true)
        for name, t in pairs (trackNames ()) do
            if not before[name] then
                for r in t:to_track ():playlist ():region_list ():iter () do
                    labelOfSource[r:source (0):name ()] = label
                end
            end
        end
    end

    -- Ardour 7.3 does not show a region's cue markers to Lua: they are read from the saved
    -- session file, each <Source> with its <Cue> children, and placed through the regions that
    -- use the source.
    local function reportCues ()
        Session:save_state ("", false, false, false, false, false)
        local regions = {}
        for t in Session:get_tracks ():iter () do
            for r in t:to_track ():playlist ():region_list ():iter () do
                regions[#regions + 1] = { region = r, source = r:source (0):name () }
            end
        end
        local sessionFile = Session:path () .. "/" .. Session:snap_name () .. ".ardour"
        local file = assert (io.open (sessionFile, "r"))
        local xml = file:read ("a")
        file:close ()
        local function unescape (s)
            s = s:gsub ("&lt;", "<"):gsub ("&gt;", ">"):gsub ("&quot;", '"'):gsub ("&apos;", "'")
            s = s:gsub ("&#x(%x+);", function (h) return utf8.char (tonumber (h, 16)) end)
            s = s:gsub ("&#(%d+);", function (d) return utf8.char (tonumber (d)) end)
            return (s:gsub ("&amp;", "&"))
        end
        for open, body in xml:gmatch ("<Source(%s[^>]-[^/])>(.-)</Source>") do
            local sourceName = unescape (open:match ('%sname="([^"]*)"') or "")
            local label = labelOfSource[sourceName] or ("unknown source " .. sourceName)
            for attributes in body:gmatch ("<Cue%s([^>]*)>") do
                local text = unescape (attributes:match ('text="([^"]*)"') or "")
                local position = attributes:match ('position="([^"]*)"') or ""
                local domain, value = position:match ("^(%a)(%-?%d+)$")
                local cue = nil
                if domain == "b" then cue = Temporal.timepos_t.from_ticks (tonumber (value))
                elseif domain == "a" then
                    cue = Temporal.timepos_t.from_superclock (tonumber (value))
                end
                for _, r in ipairs (regions) do
                    if r.source == sourceName and cue then
                        local region = r.region
                        local at = region:position ():samples () + cue:samples ()
                            - region:start ():samples ()
                        report ("CUE", label, text, at)
                    end
                end
            end
        end
    end

    local ok, err = pcall (function ()
        report ("SR", Session:nominal_sample_rate ())
        for line in io.lines (os.getenv ("KESTRIN_JOBS")) do
            local job = {}
            for field in (line .. "\t"):gmatch ("(.-)\t") do job[#job + 1] = field end
            if job[1] == "action" then
                runAction (job[2], job[3], job[4] == "keep")
            elseif job[1] == "usermark" then
                local where = Temporal.timepos_t (math.tointeger (tonumber (job[2])))
                Editor:mouse_add_new_marker (where, ARDOUR.LocationFlags.IsMark, 0)
                Session:locations ():mark_at (where, Temporal.timecnt_t (1)):set_name (job[3])
            elseif job[1] == "import" then
                import (job[2], job[3], job[4])
            elseif job[1] == "zoom" then
                -- The session ends at the last imported marker; moved on, its end marker does
                -- not hide the last cut's name.
                local range = Session:locations ():session_range_location ()
                if range then
                    range:set_end (Temporal.timepos_t (math.tointeger (tonumber (job[4]))), false)
                end
                Editor:reset_x_origin (math.tointeger (tonumber (job[3])))
                Editor:reset_zoom (math.tointeger (tonumber (job[2])))
            elseif job[1] ~= "" then
                error ("unknown job: " .. line)
            end
        end
        if next (labelOfSource) then reportCues () end
    end)
    if not ok then report ("ERROR", err) end
    report ("END")
    out:close ()
    os.rename (reportPath .. ".part", reportPath)
end end
