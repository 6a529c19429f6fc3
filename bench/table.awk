# Turns Google Benchmark's JSON output (first file) and tavrix_timing's
# tab-separated rows (second file, may be empty) into one Markdown table.
# Google Benchmark writes one "key": value pair a line, which is all this
# reads; no JSON tool is needed.
function num(name, key) { return ((name, key) in v) ? v[name, key] + 0 : -1 }
function has(name, key) { return (name, key) in v }
# A benchmark's CPU time per iteration in microseconds, whatever unit it was
# reported in. CPU time, as Google Benchmark's rates are: on a shared machine
# the wall time also counts the other processes' turns.
function micros(name,   t, u) {
  if (!has(name, "cpu_time")) return -1
  t = v[name, "cpu_time"] + 0; u = v[name, "time_unit"]
  if (u == "ns") return t / 1000
  if (u == "ms") return t * 1000
  if (u == "s") return t * 1e6
  return t
}
function row(measure, figure) { printf "| %-58s | %18s |\n", measure, figure }
function rate(name, key, unit) {
  if (has(name, "error_occurred")) return "failed"
  return num(name, key) < 0 ? "not measured" : sprintf("%.0f %s", num(name, key), unit)
}
function per(name, divide, fmt) {
  if (has(name, "error_occurred")) return "failed"
  return micros(name) < 0 ? "not measured" : sprintf(fmt, micros(name) / divide)
}
function ratio(a, b) { return (a > 0 && b > 0) ? sprintf(a / b < 10 ? "%.2f x" : "%.0f x", a / b) : "not measured" }

FNR == 1 { file++ }
file == 1 && /"name":/ {
  # "BM_X/real_time", "BM_X/iterations:1": the benchmark's own name is enough.
  line = $0; sub(/^[^:]*: *"/, "", line); sub(/",? *$/, "", line); sub(/\/.*/, "", line)
  name = line; next
}
file == 1 && /^ *"[A-Za-z_0-9]+": / && name != "" {
  key = $0; sub(/^ *"/, "", key); sub(/".*/, "", key)
  val = $0; sub(/^[^:]*: */, "", val); sub(/,? *$/, "", val); gsub(/"/, "", val)
  v[name, key] = val; next
}
file == 1 && /^ *\}/ { name = ""; next }
file == 2 && NF { timing[++timings] = $0 }

END {
  printf "| %-58s | %18s |\n", "measure", "figure"
  printf "|%s|%s|\n", "------------------------------------------------------------", "-------------------:"
  row("Free run (30,000 lines of labels and remarks)", rate("BM_FreeRunLines", "lines_per_s", "lines/s"))
  row("Free run with the trace on", rate("BM_FreeRunLinesTraced", "lines_per_s", "lines/s"))
  row("Soak loop (LOOPCHECK, WAITSECONDS 60, GOTO), virtual time",
      rate("BM_SoakLoopWaitSeconds", "lines_per_s", "lines/s"))
  row("Soak loop with the trace on", rate("BM_SoakLoopWaitSecondsTraced", "lines_per_s", "lines/s"))
  row("Soak loop with the run's record in the data root",
      rate("BM_SoakLoopWaitSecondsWithRecord", "lines_per_s", "lines/s"))
  bare = num("BM_FreeRunLines", "lines_per_s"); traced = num("BM_FreeRunLinesTraced", "lines_per_s")
  row("  cost of the trace, free run (CPU time per line)",
      bare > 0 && traced > 0 ? sprintf("%+.1f %%", (bare / traced - 1) * 100) : "not measured")
  row("Free run heard by a front end, as tavrix-cli runs it", rate("BM_FreeRunHeard", "lines_per_s", "lines/s"))
  row("The same with the run's record in the data root", rate("BM_FreeRunWithRecord", "lines_per_s", "lines/s"))
  heard = num("BM_FreeRunHeard", "lines_per_s"); recorded = num("BM_FreeRunWithRecord", "lines_per_s")
  row("  cost of the record (CPU time per line)",
      heard > 0 && recorded > 0 ? sprintf("%+.1f %%", (heard / recorded - 1) * 100) : "not measured")
  row("GOTO to the last label of 30,000 lines", per("BM_GotoLastLabel", 1, "%.2f us"))
  row("GOTO by reopening the file and scanning it (naive)", per("BM_GotoNaiveReopenAndScan", 1, "%.0f us"))
  row("GOTO: naive cost / our cost", ratio(micros("BM_GotoNaiveReopenAndScan"), micros("BM_GotoLastLabel")))
  row("SEND lines through the run engine, in-process rig", rate("BM_SendLinesInProcessRig", "lines_per_s", "lines/s"))
  row("SEND exchange (WRI + REP) on the link port, in-process", rate("BM_SendExchangeOnThePort", "sends_per_s", "/s"))
  row("SEND exchange through the link layer, in-process", rate("BM_SendExchangeThroughTheLayer", "sends_per_s", "/s"))
  row("Exchange with a rig server over TCP (127.0.0.1)", rate("BM_TcpLoopbackExchange", "exchanges_per_s", "/s"))
  row("Exchange through the keyed link bridge (127.0.0.1)", rate("BM_BridgeLoopbackExchange", "exchanges_per_s", "/s"))
  row("I/O map: Modbus register reads through CHECK (real time)", rate("BM_ModbusRegisterReadsThroughCheck", "lines_per_s", "/s"))
  row("I/O map: Modbus register writes through SEND (real time)", rate("BM_ModbusRegisterWritesThroughSend", "lines_per_s", "/s"))
  row("I/O map: SCPI queries through CHECK (real time)", rate("BM_ScpiQueriesThroughCheck", "lines_per_s", "/s"))
  row("I/O map: channel lookup and value conversion", per("BM_MapLookupAndConversion", 0.001, "%.0f ns"))
  row("Calculated channels: one pass over 1,000 rows", per("BM_CalcPass1000Rows", 1000, "%.3f ms"))
  row("Calculated channels: a simulated day of 50 rows", per("BM_SimulatedDay50Rows", 1e6, "%.2f s"))
  row("Calculated channels: a simulated week of 50 rows", per("BM_SimulatedWeek50Rows", 1e6, "%.2f s"))
  row("Calculated channels: a simulated week of examples/calc_day", per("BM_SimulatedWeekOfTheDayExample", 1e6, "%.2f s"))
  tea = num("BM_TeaEncryptByte", "bytes_per_second") / 1e6
  ref = num("BM_ReferenceEncipher", "bytes_per_second") / 1e6
  row("TEA encryption, TeaCipher (1 MiB frame)", tea > 0 ? sprintf("%.1f MB/s", tea) : "not measured")
  row("TEA encryption, plain reference loop", ref > 0 ? sprintf("%.1f MB/s", ref) : "not measured")
  row("TEA encryption: TeaCipher speed / reference loop speed", ratio(tea, ref))
  tea = num("BM_TeaDecryptByte", "bytes_per_second") / 1e6
  ref = num("BM_ReferenceDecipher", "bytes_per_second") / 1e6
  row("TEA decryption, TeaCipher (1 MiB frame)", tea > 0 ? sprintf("%.1f MB/s", tea) : "not measured")
  row("TEA decryption: TeaCipher speed / reference loop speed", ratio(tea, ref))
  if (has("BM_TeaDecryptFile", "peak_rss_MiB"))
    row(sprintf("TEA file decryption (%d MiB): speed, peak memory", num("BM_TeaDecryptFile", "file_MiB")),
        sprintf("%.0f MB/s, %.0f MiB", num("BM_TeaDecryptFile", "bytes_per_second") / 1e6,
                num("BM_TeaDecryptFile", "peak_rss_MiB")))
  lk = num("BM_ResultsWritingLockCost", "locked_us")
  un = num("BM_ResultsWritingLockCost", "unlocked_us")
  if (lk > 0 && un > 0)
    row("Results of one UUT, median: locked / unlocked (lock cost)",
        sprintf("%.0f / %.0f us (%+.1f %%)", lk, un, (lk / un - 1) * 100))
  row("Results folder lock alone: take and let go", per("BM_FolderLockAlone", 1, "%.1f us"))
  if (timings > 0) row("On the system clock (real time):", "")
  for (i = 1; i <= timings; i++) {
    split(timing[i], f, "\t")
    row(f[1], f[2])
  }
}
