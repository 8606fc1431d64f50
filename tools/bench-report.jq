# Turns the rows the benchmark programs wrote (one JSON object per program,
# read with --slurp) into the Markdown tables of docs/BENCHMARKS.md.
# Lines with a "run" key are tools/run-bench's own: each program's exit status
# and time.

def cell: tostring | gsub("\\|"; "\\|") | gsub("\n"; " ");
def line: map(cell) | "| " + join(" | ") + " |";
def capitalised: if length > 0 then (.[0:1] | ascii_upcase) + .[1:] else . end;

def verdicts: [.tables[].rows[].verdict];
def count(v): map(select(. == v)) | length;
def judged_not: map(select(startswith("not judged"))) | length;

def table:
  . as $t
  | ($t.peers | length) as $np
  | (["case", "qzbase"] + $t.peers
     + (if $np == 1 then ["ratio"] else $t.peers | map("ratio vs " + .) end)
     + ["goal", "verdict"]) as $head
  | ["### " + $t.title, "",
     ((if $t.measure == "" then "Figures measured by the program itself" else $t.measure | capitalised end)
      + (if $np == 0 then "; no peer." else "; ratio = " + $t.ratio + "." end)),
     "",
     ($head | line),
     (["---", "---:"] + [range(0; 2 * $np) | "---:"] + ["---", "---"] | "|" + join("|") + "|"),
     ($t.rows[] | ([.case, .ours.text] + (.peers | map(.text)) + .ratio_texts
                   + [(if .goal == "" then "-" else .goal end), .verdict] | line)),
     ""]
    + ($t.notes | map(., ""))
  | .[];

(map(select(has("area")))) as $areas
| (map(select(has("run")))) as $runs
| [
    "## Verdicts at a glance",
    "",
    "| area | program | run time | goals met | not met | not judged |",
    "|---|---|---:|---:|---:|---:|",
    ($runs[] | . as $r
      | ($areas | map(select(.program == $r.run)) | first) as $a
      | if $a == null then
          [$r.run | sub("^bench_"; ""), $r.run, "\($r.seconds) s", "-", "-",
           "no rows (exit status \($r.status))"] | line
        else
          ($a | verdicts) as $v
          | [$a.area, $a.program, "\($r.seconds) s", ($v | count("met")), ($v | count("not met")), ($v | judged_not)]
          | line
        end),
    "",
    ($areas[] |
      "## \(.area) (\(.program))", "",
      (.tables[] | table),
      (.notes[] | ., "")),
    ($runs[] | select(.status != 0)
      | "`\(.run)` stopped with exit status \(.status) after \(.seconds) s: see its output in the raw log.", "")
  ]
| .[]
