# Tidies scdoc's output for mandoc -T lint: drops the empty paragraph macros
# (after a heading, before the end of an indented block or the next heading)
# and breaks text lines longer than 80 bytes at spaces, which roff reads the
# same.
function flush() { if (held != "") { print held; prev = held; held = "" } }
function wrap(line,    cut, piece) {
    while (length(line) > 80) {
        cut = 0
        for (i = 80; i > 1; i--) {
            if (substr(line, i, 1) == " ") { cut = i; break }
        }
        if (cut == 0) break
        print substr(line, 1, cut - 1)
        line = substr(line, cut + 1)
        # A continuation must not read as a request.
        if (line ~ /^[.']/) line = "\\&" line
    }
    print line
}
/^\.TS/ { table = 1 }
/^\.TE/ { table = 0 }
/^\.P$/ {
    if (held != "" || prev ~ /^\.(TH|SH|SS|P|RS)( |$)/) next
    held = $0; next
}
# The paragraph's space then comes after the block, unless a heading follows.
/^\.RE( |$)/ { print; prev = $0; next }
/^\.(SH|SS)( |$)/ { held = "" }
{
    flush()
    if (!table && $0 !~ /^[.']/ && length($0) > 80) wrap($0); else print
    prev = $0
}
