# Reads the JUnit file `ctest --output-junit` writes and prints one line per test, tab-separated:
#   P NAME             passed
#   F NAME DETAIL      failed (also: could not run, e.g. a missing program)
#   S NAME REASON      skipped by the test itself (SKIP_RETURN_CODE / SKIP_REGULAR_EXPRESSION) or
#                      disabled; REASON is the line of its output that says why
function attr(line, key) {
  if (match(line, key "=\"[^\"]*\"")) {
    return substr(line, RSTART + length(key) + 2, RLENGTH - length(key) - 3)
  }
  return ""
}
function unxml(text) {
  gsub(/&lt;/, "<", text)
  gsub(/&gt;/, ">", text)
  gsub(/&quot;/, "\"", text)
  gsub(/&apos;/, "'", text)
  gsub(/&amp;/, "\\&", text)
  return text
}
# One line of a test's output: a skip reason is a line that talks about skipping (not a gtest
# "[  SKIPPED ]" line), or the line after gtest's "file:line: Skipped".
function consider(text) {
  gsub(/\r/, "", text)
  if (text ~ /^[ \t]*$/) {
    return
  }
  if (after_gtest_skip) {
    reason = text
    after_gtest_skip = 0
  } else if (text ~ /: Skipped$/) {
    after_gtest_skip = 1
  } else if (reason == "" && tolower(text) ~ /skip/ && text !~ /^\[/) {
    reason = text
  }
  last = text
}
/<testcase / {
  name = unxml(attr($0, "name"))
  status = attr($0, "status")
  message = ""
  reason = ""
  last = ""
  after_gtest_skip = 0
  in_output = 0
  next
}
!in_output && /<skipped message=/ {
  message = unxml(attr($0, "message"))
  next
}
!in_output && /<failure message=/ {
  message = unxml(attr($0, "message"))
  next
}
!in_output && /<system-out>/ {
  in_output = 1
  sub(/.*<system-out>/, "")
}
in_output {
  closed = sub(/<\/system-out>.*/, "")
  consider(unxml($0))
  if (closed) {
    in_output = 0
  }
  next
}
/<\/testcase>/ {
  if (status == "run") {
    print "P\t" name
  } else if (status == "notrun" && message ~ /^SKIP_/) {
    print "S\t" name "\t" (reason != "" ? reason : (last != "" ? last : message))
  } else if (status == "disabled") {
    print "S\t" name "\tdisabled"
  } else {
    print "F\t" name "\t" (message != "" ? message : last)
  }
}
