# filter.awk - what Doxygen sees of the public headers: their plain comments as comments of its own, text unchanged.
#
#   awk -f filter.awk HEADER
#
# The first sentence of a comment in front of a declaration becomes the brief description, the rest stands as it was
# written. A comment that describes several declarations is repeated for each. The opening comment and the text of the
# sections describe the file. A comment behind a field or a constant describes it. In the C++ header the // comments of
# namespaces, classes and members are taken the same way.

function escaped(text) {
  gsub(/[\\@&$#<>%"]/, "\\\\&", text)
  gsub(/::/, "\\::", text)
  return text
}

# The text as it stands, below a brief description when it has one.
function described(text, brief,   rest) {
  rest = text
  if (brief) {
    if (!match(text, /\.([ \n]|$)/)) RSTART = length(text) + 1
    rest = substr(text, RSTART + 2)
    text = substr(text, 1, RSTART - 1)
    gsub(/\n/, " ", text)
    gsub(/  +/, " ", text)
    text = escaped(text) "."
  } else {
    text = ""
  }
  return text (rest == "" ? "" : "\n\n@verbatim\n" rest "\n@endverbatim")
}

# A section's title and text, added to what is said of the file.
function section(text,   title) {
  title = text
  sub(/^---- /, "", title)
  sub(/ ----.*$/, "", title)
  sub(/^---- [^\n]*----\n*/, "", text)
  if (text != "") print "/** @file\n@par " escaped(title) "\n@verbatim\n" text "\n@endverbatim */\n"
}

# A whole comment was read.
function keep(text) {
  if (opening) {
    opening = 0
    sub(/^[^ ]+ - /, "", text)
    print "/** @file\n@brief " described(text, 1) " */"
    return
  }
  if (text ~ /^---- /) {
    section(text)
    return
  }
  sub(/^[A-Za-z_][A-Za-z0-9_., ]* - /, "", text)
  comment = text
}

function say_comment() {
  if (comment != "") print "/** @brief " described(comment, 1) " */"
}

FNR == 1 {
  opening = 1
  slashes = FILENAME ~ /\.hpp$/
  mark = slashes ? "^ *// ?" : "^(/\\*| \\*) ?"
}

# Comments of the C++ header: a run of lines. Those of statements stand deeper and stay as they are.
slashes && /^( ? ?)\/\/( |$)/ {
  line = $0
  sub(mark, "", line)
  text = text (text == "" ? "" : "\n") line
  next
}
slashes && text != "" {
  keep(text)
  text = ""
}

!slashes && !inside && /^\/\* / {
  inside = 1
  text = ""
}
inside {
  line = $0
  sub(mark, "", line)
  ends = sub(/ ?\*\/ *$/, "", line)
  text = text (text == "" ? "" : "\n") line
  if (ends) {
    inside = 0
    keep(text)
    text = ""
  }
  next
}

/^ *$/ { comment = "" }

# The first line of a declaration takes the comment; lines that go on with it are indented further.
comment != "" && !going_on { say_comment() }
{
  line = $0
  if (!slashes && match(line, /\/\* .* \*\/$/) && line !~ /^\/\*/) {
    trailing = substr(line, RSTART + 3, RLENGTH - 6)
    line = substr(line, 1, RSTART - 1) "/**< " escaped(trailing) " */"
  }
  print line
  going_on = line !~ /^ *$|^#|^MQ_(BEGIN|END)_C|[;{}:]( *\/\*\*<.*)?$/
  if (slashes || line ~ /[{]( *\/\*\*<.*)?$/) comment = ""
}
