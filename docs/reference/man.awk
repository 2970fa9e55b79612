# man.awk - manual pages from the public headers: one for each function and variable, one for each header.
#
#   awk -v out=FOLDER -v version=VERSION -f man.awk mqnode/node.h ...
#
# The headers are named as they are included. What is read from them is the shape that their comments keep: the opening
# comment is the header's conventions; a comment "name - what it does." stands before one or more declarations; a
# comment "---- Title ----" opens a section and may say more about it. Declarations that have no comment are described
# by the opening one. FOLDER must exist.

function roff(text) {
  gsub(/\\/, "\\e", text)
  gsub(/'/, "\\(aq", text)
  gsub(/`/, "\\(ga", text)
  gsub(/~/, "\\(ti", text)
  gsub(/\^/, "\\(ha", text)
  gsub(/->/, "\\->", text)
  text = " " text
  while (match(text, /[ (]-[0-9]/)) text = substr(text, 1, RSTART) "\\" substr(text, RSTART + 1)
  text = substr(text, 2)
  if (text ~ /^\./) text = "\\&" text
  return text
}

function indent_of(line) {
  match(line, /^ */)
  return RLENGTH
}

function trim(text) {
  gsub(/^ +| +$/, "", text)
  return text
}

# The first sentence of a comment, without its full stop: the lines up to the first list or empty line hold it.
function first_sentence(text,   lines, n, i, lead) {
  n = split(text, lines, "\n")
  for (i = 1; i <= n && lines[i] != "" && indent_of(lines[i]) == 0; i++) {
    if (i > 1 && is_item(lines[i])) break
    lead = lead (i > 1 ? " " : "") lines[i]
  }
  if (match(lead, /\.( |$)/)) lead = substr(lead, 1, RSTART - 1)
  return lead
}

# Whether a line begins an entry of a list: a label, two blanks or more, its text.
function is_item(line) {
  return indent_of(line) < 4 && line ~ /^ *[^ ]+( [^ ]+)?( [^ ]+)?( [^ ]+)?( [^ ]+)?  +[^ ]/
}

# The first line of a list's entry. An argument's direction goes with its name.
function begin_item(line, file,   label, direction) {
  line = trim(line)
  match(line, /  +/)
  label = substr(line, 1, RSTART - 1)
  line = substr(line, RSTART + RLENGTH)
  if (match(line, /^(in\/out|in|out)  +/)) {
    direction = trim(substr(line, 1, RLENGTH))
    line = substr(line, RLENGTH + 1)
  }
  print ".TP" > file
  print "\\fB" roff(label) "\\fP" (direction == "" ? "" : " (" direction ")") > file
  print roff(line) > file
}

# Goes on with an entry. One that lists values by number has a line for each.
function continue_item(line, before, file) {
  line = trim(line)
  if (line ~ /^-?[0-9]+  / || (line ~ /^-?[0-9]+ / && before ~ /[.)]$/)) print ".br" > file
  print roff(line) > file
}

# Writes a comment as paragraphs, lists and examples.
function render(text, file,   lines, n, i, line, mode, was) {
  n = split(text, lines, "\n")
  for (i = 1; i <= n; i++) {
    line = lines[i]
    was = mode
    if (line == "") mode = ""
    else if (is_item(line)) mode = "item"
    else if (indent_of(line) == 0) mode = "prose"
    else if (indent_of(line) < 4 || mode == "") mode = "example"
    if (was == "example" && mode != "example") print ".fi\n.RE" > file
    if (mode == "item" && is_item(line)) begin_item(line, file)
    else if (mode == "item") continue_item(line, lines[i - 1], file)
    else if (mode == "prose") {
      if (was != "prose") print ".PP" > file
      print roff(line) > file
    } else if (mode == "example") {
      if (was != "example") print ".PP\n.RS 4\n.nf" > file
      print roff(substr(line, 3)) > file
    }
  }
  if (mode == "example") print ".fi\n.RE" > file
}

# A declaration in lines that fit a terminal, broken behind commas.
function print_declaration(text, file,   words, n, i, line, piece) {
  n = split(text, words, /, /)
  line = words[1]
  for (i = 2; i <= n; i++) {
    piece = words[i]
    if (length(line) + length(piece) > 66) {
      print "\\fB" roff(line) ",\\fP" > file
      line = "    " piece
    } else {
      line = line ", " piece
    }
  }
  print "\\fB" roff(line) "\\fP" > file
}

function header_page(header,   name) {
  name = header
  gsub(/\//, "_", name)
  return name
}

function begin_page(name, names, brief, header, file) {
  print ".\\\" Made from " header " by docs/reference/man.awk." > file
  print ".TH \"" name "\" 3 \"\" \"mqnode " version "\" \"mqnode functions\"" > file
  print ".nh\n.ad l\n.SH NAME" > file
  print roff(names) " \\- " roff(brief) > file
  print ".SH SYNOPSIS\n.nf\n\\fB#include <" header ">\\fP" > file
}

# SEE ALSO: the headers whose conventions hold, then the neighbours of a page.
function see_also(header, name, members, file,   all, n, i, line, shown) {
  print ".SH SEE ALSO" > file
  if (name != header_page(header)) line = line " " header_page(header)
  if (header ~ /^mqnode\// && header != "mqnode/node.h") line = line " mqnode_node.h"
  if (header ~ /^socksin\// && header != "socksin/record.h") line = line " socksin_record.h"
  if (header ~ /^(runtime|queue|sockutil|companion)\// || header == "mqnode/node.h") line = line " mqnode_mqnode.h"
  n = split(line members, all, " ")
  for (i = 1; i <= n; i++) {
    if (all[i] == name || ((name, all[i]) in said)) continue
    said[name, all[i]] = 1
    shown = shown (shown == "" ? "" : " (3),\n") ".BR " all[i]
  }
  print shown " (3)" > file
}

# The comment of the declarations that follow, or that were announced by an earlier one, or the header's own.
function keep_group(   text) {
  if (comment ~ /^Internal:/) names = declarations = types = ""
  if (names == "") return
  text = comment
  if (text == "" && (names in announced)) text = announced[names]
  group_count++
  group_own[group_count] = text != ""
  group_brief[group_count] = first_sentence(text != "" ? text : essay[header])
  group_text[group_count] = text != "" ? text : essay[header]
  group_names[group_count] = names
  group_declarations[group_count] = types declarations
  group_header[group_count] = header
  group_section[group_count] = section
  members[header] = members[header] " " names
  section_members[header, section] = section_members[header, section] " " names
  names = declarations = types = ""
}

function keep_declaration(text,   name) {
  gsub(/(extern )?MQ_API |MQ_RUNTIME |static inline /, "", text)
  gsub(/ +/, " ", text)
  sub(/ ?[{].*$/, ";", text)
  name = text
  if (name ~ /\(/) sub(/\(.*$/, "", name)
  sub(/(\[.*)?;.*$/, "", name)
  sub(/^.*[ *]/, "", name)
  names = names (names == "" ? "" : " ") name
  declarations = declarations text "\n"
}

# A whole comment was read: opening, section, or of what follows. "name - " goes, the names are remembered.
function keep_comment(text,   called, parts, n, i) {
  keep_group()
  if (text ~ /^---- /) {
    section = text
    sub(/^---- /, "", section)
    sub(/ ----.*$/, "", section)
    sub(/^---- [^\n]* ----[\n]*/, "", text)
    section_text[header, section] = text
    return
  }
  if (match(text, /^[A-Za-z_][A-Za-z0-9_., ]* - /)) {
    called = substr(text, 1, RLENGTH - 3)
    text = substr(text, RLENGTH + 1)
    n = split(called, parts, /, /)
    for (i = 1; i <= n; i++) announced[parts[i]] = text
  }
  if (essay[header] == "") essay[header] = text
  else comment = text
}

FNR == 1 {
  keep_group()
  header = FILENAME
  sub(/^(cpp|loop)\//, "", header)
  headers[++header_count] = header
  section = comment = open_text = ""
  in_comment = in_body = in_declaration = 0
}

in_body {
  if (/^}/) in_body = 0
  next
}

!in_comment && !in_declaration && /^\/\* / {
  in_comment = 1
  open_text = ""
}

in_comment {
  line = $0
  sub(/^(\/\*| \*) ?/, "", line)
  ends = sub(/ ?\*\/ *$/, "", line)
  open_text = open_text (open_text == "" ? "" : "\n") line
  if (ends) {
    in_comment = 0
    keep_comment(open_text)
  }
  next
}

/^(extern )?MQ_API |^MQ_RUNTIME |^static inline / { in_declaration = 1 }

in_declaration {
  declaration = declaration (declaration == "" ? "" : " ") $0
  if (/[;{]/) {
    in_declaration = 0
    in_body = /[{]/
    keep_declaration(declaration)
    declaration = ""
  }
  next
}

/^typedef .*;$/ && comment != "" { types = types $0 "\n" }
/^ *$/ || /^(typedef )?(struct|enum)/ {
  keep_group()
  comment = types = ""
}

function write_function_page(name, group,   file, text, lines, n, i, shown) {
  file = out "/" name ".3"
  shown = group_names[group]
  gsub(/ /, ", ", shown)
  begin_page(name, shown, group_brief[group], group_header[group], file)
  print "" > file
  n = split(group_declarations[group], lines, "\n")
  for (i = 1; i < n; i++) print_declaration(lines[i], file)
  print ".fi\n.SH DESCRIPTION" > file
  text = group_text[group]
  if (text ~ /^[a-z][a-z]/) text = toupper(substr(text, 1, 1)) substr(text, 2)
  render(text, file)
  text = section_text[group_header[group], group_section[group]]
  if (text != "") {
    print ".SH " toupper(group_section[group]) > file
    render(text, file)
  }
  if (group_own[group]) {
    print ".SH CONVENTIONS" > file
    render(group_header[group] " - " essay[group_header[group]], file)
  }
  see_also(group_header[group], name, section_members[group_header[group], group_section[group]], file)
  close(file)
}

function write_header_page(header,   file, name) {
  name = header_page(header)
  file = out "/" name ".3"
  begin_page(name, name, first_sentence(essay[header]), header, file)
  print ".fi\n.SH DESCRIPTION" > file
  render(header " - " essay[header], file)
  see_also(header, name, members[header], file)
  close(file)
}

END {
  keep_group()
  for (g = 1; g <= group_count; g++) {
    count = split(group_names[g], each, " ")
    for (e = 1; e <= count; e++) write_function_page(each[e], g)
  }
  for (h = 1; h <= header_count; h++) write_header_page(headers[h])
}
