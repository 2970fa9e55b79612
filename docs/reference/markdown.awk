# markdown.awk - converts the documents for Doxygen, so that links work on its pages.
#
#   awk -f markdown.awk docs/guide.md
#
# Headings get the anchors that other viewers make of them, with the name of the document in front. Links to headers lead
# to their pages. Links to other files of the tree become plain text, except examples, which are installed beside the
# pages.

function anchor(name, heading,   count) {
  heading = tolower(heading)
  gsub(/[^a-z0-9 _-]/, "", heading)
  gsub(/ /, "-", heading)
  heading = name "-" heading
  count = seen[heading]++
  return heading (count > 0 ? "-" count : "")
}

# The target of a link on Doxygen's pages; empty for none.
function target(link,   parts) {
  if (link ~ /^https?:/ || link ~ /^\.\.\/examples/ || link ~ /\.svg$/) return link
  if (link ~ /^#/) return "@ref " document "-" substr(link, 2)
  if (link ~ /^[a-z-]+\.md#/) {
    split(link, parts, /\.md#/)
    return "@ref " parts[1] "-" parts[2]
  }
  if (link ~ /^(\.\.\/)*([a-z-]+|SECURITY)\.md$/) {
    sub(/^.*\//, "", link)
    sub(/\.md$/, "", link)
    return "@ref document-" tolower(link)
  }
  if (link ~ /^(docs\/)[a-z-]+\.md/) return target(substr(link, 6))
  if (sub(/^\.\.\//, "", link) && link ~ /\.(h|hpp)$/) return "@ref " link
  return ""
}

function with_links(line,   done, link) {
  while (match(line, /\]\([^) ]*\)/)) {
    link = target(substr(line, RSTART + 2, RLENGTH - 3))
    done = done substr(line, 1, RSTART - 1)
    if (link ~ /^@ref/ && match(done, /\[`[^`]*`$/)) {
      done = substr(done, 1, RSTART) substr(done, RSTART + 2)
      sub(/`$/, "", done)
    }
    if (link != "") done = done "](" link ")"
    else if (match(done, /\[[^[]*$/)) done = substr(done, 1, RSTART - 1) substr(done, RSTART + 1)
    match(line, /\]\([^) ]*\)/)
    line = substr(line, RSTART + RLENGTH)
  }
  return done line
}

FNR == 1 {
  document = FILENAME
  sub(/^.*\//, "", document)
  sub(/\.md$/, "", document)
  document = tolower(document)
}
/^ *```/ { fenced = !fenced }
fenced || /^ *```/ {
  print
  next
}
/^# / {
  print $0 " {#document-" document "}"
  next
}
/^##+ / {
  heading = $0
  sub(/^#+ /, "", heading)
  print $0 " {#" anchor(document, heading) "}"
  next
}
{ print with_links($0) }
