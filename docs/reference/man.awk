# man.awk - manual pages from the public headers: one for each function, variable, record and type, one for each header.
#
#   awk -v out=FOLDER -v version=VERSION -f comment.awk -f man.awk examples.c mqnode/node.h ...
#
# A comment "name, name - what they do." documents the declarations that follow it; a comment "---- Title ----" begins a
# section and may describe it. A label that a function's comment lacks (arguments, Result, error, ...) is taken
# from the opening comment of its header, the result also from the header with the conventions of the layer.
# The headers are named as they are included. FOLDER must exist.

# ---- Reading ----

# Stores what the current comment documents.
function keep_group(   text, first) {
  split(names, first, " ")
  text = comment
  if (text == "" && (first[1] in announced)) text = announced[first[1]]
  if (names != "" && text !~ /^Internal:/ && (kind != "function" || (first[1] in announced))) {
    group_brief[++groups] = first_sentence(text)
    group_text[groups] = text
    group_kind[groups] = kind
    group_names[groups] = names
    group_declarations[groups] = types declarations
    group_fields[groups] = fields
    group_header[groups] = header
    members[header] = members[header] " " names
    section_members[header, section] = section_members[header, section] " " names
    group_section[groups] = section
  } else if (names == "" && types != "" && text != "") {
    keep_type(text)
  }
  names = declarations = types = fields = ""
}

# A typedef that no function follows has a page of its own.
function keep_type(text,   n, i, lines, name) {
  n = split(types, lines, "\n")
  for (i = 1; i < n; ++i) {
    name = lines[i]
    sub(/;.*$/, "", name)
    sub(/^.* /, "", name)
    if (match(lines[i], /\(\*[A-Za-z_]+\)/)) name = substr(lines[i], RSTART + 2, RLENGTH - 3)
    names = names (names == "" ? "" : " ") name
  }
  declarations = types
  types = ""
  kind = "type"
  keep_group()
}

function keep_declaration(text,   name) {
  gsub(/(extern )?MQ_API |MQ_RUNTIME |static inline /, "", text)
  gsub(/ +/, " ", text)
  sub(/ ?[{].*$/, ";", text)
  name = text
  kind = name ~ /\(/ ? "function" : "variable"
  sub(/\(.*$/, "", name)
  sub(/(\[.*)?;.*$/, "", name)
  sub(/^.*[ *]/, "", name)
  names = names (names == "" ? "" : " ") name
  declarations = declarations text "\n"
}

function keep_comment(text,   called, parts, n, i) {
  keep_group()
  comment = ""
  if (text ~ /^---- /) {
    section = text
    sub(/^---- /, "", section)
    sub(/ ----.*$/, "", section)
    sub(/^---- [^\n]* ----[\n]*/, "", text)
    section_text[header, section] = text
    section_list[header] = section_list[header] section "\n"
    return
  }
  if (match(text, /^[A-Za-z_][A-Za-z0-9_., ]* - /)) {
    called = substr(text, 1, RLENGTH - 3)
    text = substr(text, RLENGTH + 1)
    n = split(called, parts, /, /)
    for (i = 1; i <= n; ++i) announced[parts[i]] = text
  }
  if (!(header in essay)) essay[header] = text
  else comment = text
}

# A constant and its comment. The codes of a layer are stored by number.
function keep_constant(line,   name, value, text) {
  name = trim(line)
  if (match(name, /\/\* .* \*\//)) text = substr(name, RSTART + 3, RLENGTH - 6)
  sub(/^#define /, "", name)
  sub(/ *\/\*.*$/, "", name)
  sub(/,$/, "", name)
  value = name
  sub(/^[A-Za-z0-9_]+( = | *)/, "", value)
  sub(/[ =].*$/, "", name)
  constants[header] = constants[header] name "\t" value "\t" text "\n"
  if (comment ~ /^Codes of/ && value != 0) code[header, value] = name
}

# A line of a record: the declaration and its comment, which may precede it.
function keep_field(line,   text) {
  if (match(line, /\/\* .*/)) {
    text = substr(line, RSTART + 3)
    sub(/ *\*\/$/, "", text)
    line = substr(line, 1, RSTART - 1)
  } else if (line ~ /^ +\* /) {
    text = trim(line)
    sub(/^\* /, "", text)
    sub(/ *\*\/$/, "", text)
    line = ""
  }
  if (text != "") field_text = field_text (field_text == "" ? "" : " ") text
  sub(/ +$/, "", line)
  if (line == "") return
  declarations = declarations line "\n"
  line = trim(line)
  sub(/;$/, "", line)
  fields = fields line "\t" field_text "\n"
  field_text = ""
}

FNR == 1 {
  keep_group()
  header = FILENAME
  examples = header ~ /examples\.c$/
  cplusplus = header ~ /\.hpp$/
  sub(/^(cpp|loop)\//, "", header)
  if (header !~ /\.(c|md)$/) headers[++header_count] = header
  section = comment = open_text = access = ""
  in_comment = in_body = in_declaration = in_enum = in_record = in_class = in_detail = in_member = 0
}

# Examples: lines that begin with // name the pages that show the code below them.
examples {
  if (/^\/\/ /) example_names = (before ~ /^\/\/ / ? example_names " " : "") substr($0, 4)
  else if (example_names != "") example_code[example_names] = example_code[example_names] $0 "\n"
  before = $0
  next
}

# The table of errors, as in docs/errors.md.
FILENAME ~ /errors\.md$/ {
  gsub(/`/, "")
  split($0, each, / *\| */)
  if (/^\| -?[0-9]/) errors[++error_count] = each[3] " (" each[2] ")\t" each[4] "\n" each[7]
  next
}

# The C++ interface: classes with their public members.
cplusplus && /^namespace detail/ { in_detail = 1 }
cplusplus && in_detail {
  if (/^}  \/\/ namespace detail/) in_detail = 0
  comment = ""
  next
}
cplusplus && !in_class && /^\/\// {
  line = $0
  sub(/^\/\/ ?/, "", line)
  comment = comment (comment == "" ? "" : "\n") line
  next
}
cplusplus && !in_class {
  if (!(header in essay) && comment != "") {
    sub(/^[^ ]+ - /, "", comment)
    essay[header] = comment
  } else if (/^(class|struct) .*[{]/ && comment != "") {
    in_class = 1
    access = /^struct/ ? "public" : "private"
    line = $0
    sub(/ ?[{].*$/, "", line)
    if (match(line, /detail::Owned</)) line = substr(line, 1, RSTART - 1) substr(line, RSTART + RLENGTH)
    sub(/, .*$/, "", line)
    sub(/\[\[nodiscard\]\] /, "", line)
    gsub(/detail::/, "", line)
    sub(/^[A-Za-z]+ - /, "", comment)
    class_line[++classes] = line
    class_text[classes] = comment
    class_header[classes] = header
  }
  comment = ""
  next
}
cplusplus && /^};/ {
  in_class = 0
  comment = ""
  next
}
cplusplus && /^ (public|private|protected):/ {
  access = trim($1)
  sub(/:/, "", access)
  next
}
cplusplus && in_member {
  if (/^  }/) in_member = 0
  next
}
cplusplus && access == "private" { next }
cplusplus && /^  \/\/ / {
  line = $0
  sub(/^  \/\/ /, "", line)
  if (declaration_ended) comment = ""
  declaration_ended = 0
  comment = comment (comment == "" ? "" : "\n") line
  next
}
cplusplus && /^ *$/ {
  comment = ""
  next
}
cplusplus && /^  (class|struct|enum) .*[{]/ {
  in_member = !/};/
  comment = ""
  next
}
cplusplus && (in_declaration || /^  [^ }]/) {
  declaration = declaration (in_declaration ? " " : "") trim($0)
  in_declaration = !/[{;]/
  if (in_declaration) next
  in_member = /[{]$/
  keep_member(declaration)
  declaration = ""
  next
}
cplusplus { next }

function keep_member(text) {
  declaration_ended = 1
  if (text ~ /= delete|operator=|^using |^friend |&&|^~|^virtual ~|\(\) noexcept = default/) return
  if (access == "protected" && text !~ /\(/) return
  sub(/^template <.*> /, "", text)
  sub(/ *(\/\/.*)?$/, "", text)
  sub(/ noexcept.*$/, "", text)
  sub(/\) : .*$/, ")", text)
  sub(/ *[{].*$/, "", text)
  sub(/;.*$/, "", text)
  sub(/ = 0$/, "", text)
  gsub(/\[\[nodiscard\]\] |constexpr |std::/, "", text)
  ++class_members[classes]
  member_line[classes, class_members[classes]] = text
  member_text[classes, class_members[classes]] = comment
}

in_body {
  if (/^}/) in_body = 0
  next
}

!in_comment && !in_declaration && !in_record && !in_enum && /^\/\* / {
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

/^(typedef )?struct [A-Za-z]+ [{]$/ {
  keep_declaration_of_record = $0
  in_record = 1
  fields = field_text = ""
  declarations = $0 "\n"
  next
}
in_record {
  if (!/^}/) {
    keep_field($0)
    next
  }
  in_record = 0
  declarations = declarations $0
  names = keep_declaration_of_record
  sub(/ [{]$/, "", names)
  sub(/^.*struct /, "", names)
  kind = "record"
  if (names ~ /^MQQueue/) sub(/^MQ/, "", names)
  keep_group()
  comment = ""
  next
}

/^(typedef )?enum .*[{]/ {
  in_enum = 1
  keep_group()
}
in_enum {
  line = $0
  if (line ~ /[{].*}/) {
    sub(/^[^{]*[{] */, "", line)
    sub(/ *}.*$/, "", line)
    count = split(line, each, /, */)
    for (e = 1; e <= count; ++e) keep_constant(each[e])
  } else if (line ~ /^  [A-Z]/) {
    keep_constant(line)
  }
  if (/}/) {
    in_enum = 0
    comment = ""
  }
  next
}
/^#define [A-Z_]+ [0-9A-Z]/ { keep_constant($0) }

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
/^ *$/ {
  keep_group()
  comment = types = ""
}

# ---- Writing ----

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
  if (text ~ /^[.]/) text = "\\&" text
  return text
}

function put(text) { print text > file }

function head(text) { put(".SH " text) }

function prose(text) {
  put(".PP")
  put(roff(text))
}

function code_lines(text,   lines, n, i) {
  sub(/\n+$/, "", text)
  n = split(text, lines, "\n")
  put(".PP\n.RS 4\n.nf")
  for (i = 1; i <= n; ++i) put(lines[i] == "" ? ".sp" : roff(lines[i]))
  put(".fi\n.RE")
}

# An entry of a list. Each inner entry gets a line.
function entry(label, direction, text,   lines, n, i) {
  put(".TP\n\\fB" roff(label) "\\fP" (direction == "" ? "" : " (" direction ")"))
  n = split(text, lines, "\n")
  for (i = 1; i <= n; ++i) {
    if (i > 1) put(".br")
    put(lines[i] == "" ? "\\&" : roff(sentence(lines[i])))
  }
}

function is_result(label) { return label ~ /^[Rr]esults?$/ }
function is_error(label) { return label ~ /^([Ee]rrors?|status)$/ }
function is_note(label) { return label ~ /^(Trace points?|Blocks|blocking|Memory)$/ }

# The current blocks. which: "lead" the first paragraph, "arguments", "rest" blocks without a section, or "all".
function put_blocks(which,   i, argument, own) {
  for (i = 1; i <= blocks; ++i) {
    argument = block_argument[i]
    own = block_kind[i] == "entry" && !argument && (is_result(block_label[i]) || is_error(block_label[i]) || is_note(block_label[i]))
    if (which == "lead" && (i > 1 || block_kind[i] != "prose")) continue
    if (which == "arguments" && !argument) continue
    if (which == "rest" && (argument || own || (i == 1 && block_kind[i] == "prose"))) continue
    if (block_kind[i] == "entry") entry(block_label[i], block_direction[i], block_text[i])
    else if (block_kind[i] == "example") code_lines(block_text[i])
    else put_prose(block_text[i], which)
  }
}

# Prose without the sentence on the return value, which has a section of its own.
function put_prose(text, which) {
  if (which != "all" && match(text, /Returns [^.]*[.]/)) {
    returned = trim(substr(text, RSTART + 8, RLENGTH - 8))
    text = trim(substr(text, 1, RSTART - 1) substr(text, RSTART + RLENGTH))
    gsub(/  +/, " ", text)
  }
  if (text != "") prose(which == "lead" ? sentence(text) : text)
}

# The text of the first current entry with a label of that kind.
function labelled(wanted,   i) {
  for (i = 1; i <= blocks; ++i) {
    if (block_kind[i] != "entry" || block_argument[i] && !layer_labels) continue
    if (wanted == "result" ? is_result(block_label[i]) : is_error(block_label[i])) return block_text[i]
  }
  return ""
}

# The header that documents the conventions of a header's layer.
function layer_of(header) {
  if (header ~ /^socksin\//) return "socksin/record.h"
  if (header ~ /^mqnode\// && header !~ /errors|server|finish|hpp/) return "mqnode/node.h"
  return header
}

# Adds the name to each number in text that is a code of the layer.
function name_codes(text, header,   done, before, token, name) {
  while (match(text, /-?[0-9]+/)) {
    before = substr(text, 1, RSTART - 1)
    token = substr(text, RSTART, RLENGTH)
    text = substr(text, RSTART + RLENGTH)
    name = code[layer_of(header), token]
    if (name == "") name = code["mqnode/node.h", token]
    if (name == "" || header ~ /^socksin/ && token == 11) name = code["socksin/record.h", token]
    if (before ~ /[A-Za-z0-9_(]$/ || text ~ /^[A-Za-z0-9_]/) name = ""
    done = done before (name == "" ? token : name " (" token ")")
  }
  return done text
}

# RETURN VALUE. A list of values that are separated by semicolons has an entry for each.
function put_result(text,   parts, n, i, label, values) {
  head("\"RETURN VALUE\"")
  if (text ~ /^[01]$/) text = "Always " text
  gsub(/\n/, "; ", text)
  gsub(/;+ /, "; ", text)
  n = split(text, parts, /; /)
  for (i = 1; i <= n; ++i) values += parts[i] ~ /^(-?[0-9]+|nonzero|null)( |$|:|,)/
  if (values < n || n == 1) {
    prose(sentence(text))
    return
  }
  for (i = 1; i <= n; ++i) {
    match(parts[i], /^[^ :,]+/)
    label = substr(parts[i], 1, RLENGTH)
    text = substr(parts[i], RLENGTH + 1)
    sub(/^[:,]? +/, "", text)
    entry(label, "", text == "" ? "Success." : sentence(text))
  }
}

# ERRORS: an entry for each code that begins a part of the text; other parts are paragraphs.
function put_errors(text, header,   parts, n, i, line, label) {
  head("ERRORS")
  gsub(/\n/, "; ", text)
  n = split(text, parts, /; /)
  for (i = 1; i <= n; ++i) {
    line = parts[i]
    while (i < n && parts[i + 1] !~ /^(-?[0-9]+|errno|another |the code|that of|[A-Z]+[ ,(])/) line = line "; " parts[++i]
    if (line == "0") continue
    line = name_codes(line, header)
    label = ""
    while (match(line, /^(, |or |, or )?([A-Z_]+( \(-?[0-9]+\))?|errno|0)( |,|$)/)) {
      label = label (label == "" || line ~ /^,/ ? "" : " ") trim(substr(line, 1, RLENGTH))
      line = substr(line, RLENGTH + 1)
      if (sub(/,$/, "", label)) line = "," line
    }
    sub(/^, */, "", line)
    if (label != "") {
      if (label == "errno") prose(sentence("The errno" (line ~ /^(reported|another)/ ? ", " : " ") line))
      else entry(label, "", line)
    } else {
      prose(sentence(line))
    }
  }
}

# A declaration in lines that fit a terminal, broken after commas.
function put_declaration(text,   words, n, i, line) {
  n = split(text, words, /, /)
  line = words[1]
  for (i = 2; i <= n; ++i) {
    if (length(line) + length(words[i]) > 66) {
      put("\\fB" roff(line) ",\\fP")
      line = "    " words[i]
    } else {
      line = line ", " words[i]
    }
  }
  put("\\fB" roff(line) "\\fP")
}

function header_page(header) {
  gsub(/\//, "_", header)
  return header
}

function begin_page(name, names, brief, header) {
  file = out "/man3/" name ".3"
  put(".\\\" Made from " header " by docs/reference/man.awk.")
  put(".TH \"" name "\" 3 \"\" \"mqnode " version "\" \"mqnode manual\"")
  put(".nh\n.ad l\n.SH NAME")
  put(roff(names) " \\- " roff(brief))
  put(".SH SYNOPSIS\n.nf\n\\fB#include <" header ">\\fP")
}

# The headers whose conventions apply, then the neighbours.
function put_see_also(header, name, neighbours,   all, n, i, first, last, shown, said) {
  head("\"SEE ALSO\"")
  n = split(neighbours, all, " ")
  for (i = 1; i <= n && all[i] != name; ++i) continue
  first = n > 12 ? i - 4 : 1
  last = n > 12 ? i + 4 : n
  if (i > n && n > 12) last = 0
  neighbours = header_page(header) " " header_page(layer_of(header))
  for (i = first; i <= last; ++i) if (i in all) neighbours = neighbours " " all[i]
  n = split(neighbours, all, " ")
  for (i = 1; i <= n; ++i) {
    if (all[i] == name || index(said, " " all[i] " ")) continue
    said = said " " all[i] " "
    shown = shown ".BR " all[i] " (3),\n"
  }
  put(shown ".BR mqnode (7)")
  close(file)
}

function put_example(name, header,   key, each, found) {
  for (key in example_code) {
    each = ", " key ","
    if (index(each, ", " name ",")) found = key
    if (found == "" && index(each, ", " header ",")) found = key
  }
  if (found != "") {
    head("EXAMPLE")
    code_lines(example_code[found])
  } else if (name != header) {
    put_header_example(header)
  }
}

# The first example in the opening comment of a header.
function put_header_example(header,   i) {
  read_blocks(essay[header])
  for (i = 1; i <= blocks && block_kind[i] != "example"; ++i) continue
  if (i > blocks) return
  head("EXAMPLE")
  code_lines(block_text[i])
}

# Text common to the functions of a header: arguments that are in the declaration, notes that the function lacks.
function put_inherited(text, declaration, which,   i, n, parts, p, wanted) {
  read_blocks(text)
  for (i = 1; i <= blocks; ++i) {
    if (block_kind[i] != "entry") continue
    wanted = 0
    n = split(block_label[i], parts, /, /)
    for (p = 1; p <= n; ++p) {
      if (which == "arguments" && block_argument[i] && declaration ~ ("[ *]" parts[p] "[,)[]")) wanted = 1
      if (which == "notes" && is_note(parts[p]) && !(parts[p] in noted)) wanted = 1
    }
    if (!wanted) continue
    if (which == "notes") begin_notes()
    entry(block_label[i], block_direction[i], block_text[i])
  }
}

function begin_notes() {
  if (!notes) head("NOTES")
  notes = 1
}

function put_notes(text, header,   i) {
  notes = 0
  split("", noted)
  for (i = 1; i <= blocks; ++i) {
    if (block_kind[i] != "entry" || block_argument[i] || !is_note(block_label[i])) continue
    begin_notes()
    entry(block_label[i], block_direction[i], block_text[i])
    noted[block_label[i]] = 1
    if (block_label[i] ~ /^Trace point/) noted["Trace point"] = noted["Trace points"] = 1
  }
  put_inherited(essay[header], "", "notes")
}

function put_function_body(group, declaration,   header, text, result, error, uv) {
  header = group_header[group]
  text = group_text[group]
  returned = ""
  uv = header ~ /uv\.h$/
  put(".PP\nLink with \\fI" (uv ? "\\-lmqnode\\-uv " : "") "\\-lmqcompanion \\-lmqnode\\fP (\\fBpkg\\-config " \
    "\\-\\-libs mqnode\\-" (uv ? "uv" : "host") "\\fP).")
  head("DESCRIPTION")
  read_blocks(text)
  put_blocks("lead")
  put_blocks("arguments")
  put_inherited(essay[header], declaration, "arguments")
  read_blocks(text)
  put_blocks("rest")
  if (group_kind[group] != "function") return
  result = labelled("result")
  error = labelled("error")
  if (result == "") result = returned
  read_blocks(essay[header])
  if (result == "") result = labelled("result")
  if (error == "") error = labelled("error")
  layer_labels = 1
  read_blocks(essay[layer_of(header)])
  if (result == "" && declaration ~ /^int /) result = labelled("result")
  layer_labels = 0
  sub(/, (unless documented otherwise|or another nonzero value where documented)/, "", result)
  if (declaration ~ /(^|\n)void [^*]/) result = "Nothing"
  if (result == "") {
    result = group_brief[group]
    sub(/^(get|return) /, "", result)
  }
  put_result(result)
  if (error != "") put_errors(error, header)
  read_blocks(text)
  put_notes(text, header)
}

# A whole text, whose first sentence may begin in lower case.
function put_text(text) {
  read_blocks(text)
  block_text[1] = sentence(block_text[1])
  put_blocks("all")
}

function put_record_body(group,   lines, n, i, parts) {
  head("DESCRIPTION")
  put_text(group_text[group])
  n = split(group_fields[group], lines, "\n")
  for (i = 1; i < n; ++i) {
    split(lines[i], parts, "\t")
    entry(parts[1], "", parts[2])
  }
}

function write_group_page(name, group,   lines, n, i, shown, header, text) {
  header = group_header[group]
  shown = group_names[group]
  gsub(/ /, ", ", shown)
  begin_page(name, shown, group_brief[group], header)
  put("")
  n = split(group_declarations[group], lines, "\n")
  for (i = 1; i <= n; ++i) {
    if (lines[i] == "") continue
    if (group_kind[group] == "record") put("\\fB" roff(lines[i]) "\\fP")
    else put_declaration(lines[i])
  }
  put(".fi")
  if (group_kind[group] == "record") put_record_body(group)
  else put_function_body(group, group_declarations[group])
  text = section_text[header, group_section[group]]
  if (text != "") {
    head("\"" toupper(group_section[group]) "\"")
    read_blocks(text)
    put_blocks("all")
  }
  put_example(name, header)
  put_see_also(header, name, section_members[header, group_section[group]])
}

function put_class(class,   i, line) {
  put(".SS \"" roff(class_line[class]) "\"")
  put_text(class_text[class])
  for (i = 1; i <= class_members[class]; ++i) {
    line = member_line[class, i]
    put(i == 1 || member_text[class, i] != member_text[class, i - 1] || member_text[class, i] == "" ? ".TP" : ".TQ")
    put("\\fB" roff(line) "\\fP")
    if (i < class_members[class] && member_text[class, i] == member_text[class, i + 1] && member_text[class, i] != "") continue
    read_blocks(member_text[class, i])
    put(blocks == 0 ? "\\&" : roff(sentence(block_text[1])))
  }
}

function put_constants(header,   lines, n, i, parts) {
  n = split(constants[header], lines, "\n")
  if (n > 1) head("CONSTANTS")
  for (i = 1; i < n; ++i) {
    split(lines[i], parts, "\t")
    entry(parts[1] (parts[2] == "" ? "" : " = " parts[2]), "", parts[3])
  }
}

# Each code with its meaning and, on a separate line, its remedy.
function put_error_table(   i, parts) {
  head("ERRORS")
  for (i = 1; i <= error_count; ++i) {
    split(errors[i], parts, "\t")
    entry(parts[1], "", parts[2])
  }
}

# Records, types and functions with their descriptions, in the order of the header.
function put_members(header,   g, shown, begun) {
  for (g = 1; g <= groups; ++g) {
    if (group_header[g] != header) continue
    if (!begun) head("CONTENTS")
    begun = 1
    shown = group_names[g]
    gsub(/ /, "\\fP(3), \\fB", shown)
    put(".TP\n\\fB" shown "\\fP(3)")
    put(roff(sentence(group_brief[g])))
  }
}

function write_header_page(header,   name, c, n, i, titles) {
  name = header_page(header)
  begin_page(name, name, first_sentence(essay[header]), header)
  put(".fi")
  head("DESCRIPTION")
  put_text(essay[header])
  n = split(section_list[header], titles, "\n")
  for (i = 1; i < n; ++i) {
    if (section_text[header, titles[i]] == "") continue
    put(".SS \"" titles[i] "\"")
    read_blocks(section_text[header, titles[i]])
    put_blocks("all")
  }
  for (c = 1; c <= classes; ++c) {
    if (class_header[c] != header) continue
    if (c == 1 || class_header[c - 1] != header) head("CLASSES")
    put_class(c)
  }
  put_constants(header)
  if (header == "mqnode/errors.h") put_error_table()
  put_members(header)
  put_example(header, header)
  put_see_also(header, name, "")
}

END {
  keep_group()
  for (g = 1; g <= groups; ++g) {
    count = split(group_names[g], each, " ")
    for (e = 1; e <= count; ++e) write_group_page(each[e], g)
  }
  for (h = 1; h <= header_count; ++h) write_header_page(headers[h])
}
