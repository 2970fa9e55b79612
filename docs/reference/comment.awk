# comment.awk - parses the comments of the public headers, for man.awk and filter.awk.
#
# A comment is prose at the margin, entries of a list (a label, at least two blanks, its text), and examples, which are
# indented. Arguments are indented by two blanks; results, errors and the like are at the margin.

function indent_of(line) {
  match(line, /^ */)
  return RLENGTH
}

function trim(text) {
  gsub(/^ +| +$/, "", text)
  return text
}

# Whether a line begins an entry: at most five words, two blanks or more, text.
function is_entry(line) {
  return indent_of(line) < 4 && line ~ /^ *[^ ]+( [^ ]+)?( [^ ]+)?( [^ ]+)?( [^ ]+)?  +[^ ]/
}

# Whether a line within an entry begins an entry of its own: a result at the column of the text, or a label behind it.
function is_inner_entry(line, column) {
  if (indent_of(line) > column) return line ~ /^ +[^ ]+( [^ ]+)*  +[^ ]/
  return indent_of(line) == column && line ~ /^ *(-?[0-9]+  |[01] )/
}

function begin_block(kind) {
  ++blocks
  block_kind[blocks] = kind
  block_label[blocks] = block_direction[blocks] = block_text[blocks] = ""
  block_argument[blocks] = 0
}

function begin_entry(line,   label) {
  begin_block("entry")
  block_argument[blocks] = indent_of(line) > 0
  label = trim(line)
  match(label, /  +/)
  block_label[blocks] = substr(label, 1, RSTART - 1)
  label = substr(label, RSTART + RLENGTH)
  if (match(label, /^(in\/out|in|out)  +/)) {
    block_direction[blocks] = trim(substr(label, 1, RLENGTH))
    label = substr(label, RLENGTH + 1)
  }
  block_text[blocks] = label
  return length(line) - length(label)
}

# Splits a comment into blocks 1 to blocks. block_kind: prose, entry or example. block_text: the lines of an example, one
# line of prose; of an entry, a line for it and one for each inner entry.
function read_blocks(text,   lines, n, i, line, column, open) {
  blocks = 0
  n = split(text, lines, "\n")
  for (i = 1; i <= n; ++i) {
    line = lines[i]
    if (line == "") {
      if (open != "example" || lines[i + 1] !~ /^  / || is_entry(lines[i + 1])) open = ""
      else block_text[blocks] = block_text[blocks] "\n"
    } else if (is_entry(line) && open != "example") {
      column = begin_entry(line)
      open = "entry"
    } else if (open == "entry" && indent_of(line) >= 2) {
      block_text[blocks] = block_text[blocks] (is_inner_entry(line, column) ? "\n" : " ") trim(line)
    } else if (indent_of(line) == 0) {
      if (open != "prose") begin_block("prose")
      block_text[blocks] = block_text[blocks] (open == "prose" ? " " : "") line
      open = "prose"
    } else {
      if (open != "example") begin_block("example")
      block_text[blocks] = block_text[blocks] (open == "example" ? "\n" : "") substr(line, 3)
      open = "example"
    }
  }
}

# The first sentence of a comment, without its full stop.
function first_sentence(text,   line) {
  read_blocks(text)
  line = blocks > 0 && block_kind[1] == "prose" ? block_text[1] : ""
  if (match(line, /\.( |$)/)) line = substr(line, 1, RSTART - 1)
  return line
}

function capital(text) {
  if (text ~ /^(a |[a-z][a-z]+([ ,;]|$)|nonzero:|null:)/) text = toupper(substr(text, 1, 1)) substr(text, 2)
  return text
}

# Makes a sentence of a text: adds a full stop, and a capital unless the text begins with a name.
function sentence(text) {
  text = capital(text)
  return text ~ /[.:?]$/ || text == "" ? text : text "."
}
