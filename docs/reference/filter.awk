# filter.awk - converts the plain comments of the public headers to comments for Doxygen.
#
#   awk -f comment.awk -f filter.awk HEADER
#
# The first sentence of a comment in front of a declaration becomes the brief description. A comment that describes
# several declarations is repeated for each. The opening comment and the text of the sections describe the file. A
# comment behind a field or a constant describes it. In the C++ headers the // comments of namespaces, classes and members
# are treated in the same way.

function escaped(text) {
  gsub(/[\\@&$#<>%"]/, "\\\\&", text)
  gsub(/::/, "\\::", text)
  return text
}

# A text for Doxygen, with its commands escaped. Each inner entry gets a line.
function plain(text) {
  text = escaped(text)
  gsub(/\n/, "<br>", text)
  return text
}

# An entry of a list: an argument, a result, what a callback may observe.
function entry(i,   direction) {
  direction = block_direction[i] == "" ? "" : " (" block_direction[i] ")"
  return "<dl><dt><b>" escaped(block_label[i]) "</b>" direction "</dt><dd>" plain(block_text[i]) "</dd></dl>"
}

# A comment for Doxygen. Its first sentence, if any, is the brief description.
function described(text, brief,   i, made, shown) {
  shown = brief ? escaped(capital(first_sentence(text))) ".\n\n" : ""
  read_blocks(text)
  for (i = 1; i <= blocks; ++i) {
    if (block_kind[i] == "entry") made = entry(i)
    else if (block_kind[i] == "example") made = "@verbatim\n" block_text[i] "\n@endverbatim"
    else made = plain(block_text[i])
    if (brief && i == 1) {
      made = block_text[1]
      if (!match(made, /[.]( |$)/)) made = ""
      else made = plain(substr(made, RSTART + 2))
    }
    shown = shown (made == "" ? "" : made "\n\n")
  }
  return shown
}

# Adds the title and text of a section to the description of the file.
function section(text,   title) {
  title = text
  sub(/^---- /, "", title)
  sub(/ ----.*$/, "", title)
  sub(/^---- [^\n]*----\n*/, "", text)
  if (text != "") print "/** @file\n@par " escaped(title) "\n\n" described(text, 0) "*/\n"
}

# Handles a complete comment.
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
  if (slashes && $0 !~ /^( ? ?)[A-Za-z\[]/) return
  if (comment ~ /^Internal:/) {
    print "/** @cond */"
    hidden = 1
    comment = ""
  }
  if (comment != "") print "/** @brief " described(comment, 1) " */"
}

FNR == 1 {
  opening = 1
  slashes = FILENAME ~ /\.hpp$/
  mark = slashes ? "^ *// ?" : "^(/\\*| \\*) ?"
}

# Comments of the C++ header are runs of lines. Comments of statements are indented further and do not change.
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

# The comment goes before the first line of a declaration; continuation lines are indented further.
comment != "" && !going_on { say_comment() }
{
  line = $0
  if (!slashes && match(line, /\/\* .* \*\/$/) && line !~ /^\/\*/) {
    trailing = substr(line, RSTART + 3, RLENGTH - 6)
    line = substr(line, 1, RSTART - 1) "/**< " escaped(sentence(trailing)) " */"
  }
  print line
  going_on = line !~ /^ *$|^#|^MQ_(BEGIN|END)_C|[;{}:]( *\/\*\*<.*)?$/
  if ((!slashes || line ~ /^[a-z]/) && line ~ /[{]( *\/\*\*<.*)?$/) comment = ""
  if (hidden && line ~ /^(}|[^ ].*;$)/) {
    print "/** @endcond */"
    hidden = 0
  }
}
