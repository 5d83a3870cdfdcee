# Reads ctest's JUnit files. With two files the second is the second run of what failed in the first.
# Writes one line a test: result TAB name TAB reason; result is passed, second (passed on the second run), failed, skipped.

function unescape(text) {
    gsub(/&quot;/, "\"", text)
    gsub(/&apos;/, "'", text)
    gsub(/&lt;/, "<", text)
    gsub(/&gt;/, ">", text)
    gsub(/&amp;/, "\\&", text)
    return text
}

function attribute(line, name,    start, rest) {
    start = index(line, " " name "=\"")
    if (start == 0)
        return ""
    rest = substr(line, start + length(name) + 3)
    return unescape(substr(rest, 1, index(rest, "\"") - 1))
}

FNR == 1 { file++ }
{ sub(/^[ \t]*<system-out>/, "") }

/<testcase / {
    name = attribute($0, "name")
    if (!(name in result))
        order[++count] = name
    status = attribute($0, "status")
    if (status == "run")
        result[name] = file == 1 ? "passed" : "second"
    else if (status == "disabled") {
        result[name] = "skipped"
        reason[name] = "disabled in the source"
    } else
        result[name] = "failed"
    if (status == "fail" || status == "notrun")
        reason[name] = status == "fail" ? "failed" : "did not run"
}

# ctest says "notrun" of a test that skips itself and of one whose program isn't there: only the first is a skip.
/<skipped message="SKIP_/ {
    result[name] = "skipped"
    reason[name] = ""
}

/<(failure|skipped) message="/ && result[name] == "failed" {
    message = attribute($0, "message")
    if (message != "" && message !~ /^SKIP_/)
        reason[name] = message
}

# googletest says "file:line: Skipped" and the reason on the lines after it.
/: Skipped$/ { take = 1; next }
take && result[name] == "skipped" {
    if ($0 !~ /^\[ / && $0 != "")
        reason[name] = reason[name] (reason[name] == "" ? "" : " ") unescape($0)
    else
        take = 0
}
# A program that can't run at all says so in one line before its first test.
/^\[  SKIPPED \] / && !/ ms\)$/ && !/listed below:/ && result[name] == "skipped" && reason[name] == "" {
    reason[name] = unescape(substr($0, 14))
}
/<\/testcase>/ { take = 0 }

END {
    for (i = 1; i <= count; i++)
        printf "%s\t%s\t%s\n", result[order[i]], order[i], reason[order[i]]
}
