-- What a link in docs/ leads to is another page of the manual, or a document of the package.
local pages = {
  CONFIGURATION = "ostrel-edr.conf(5)",
  OPERATIONS = "ostrel-edr(8)",
  MANIFESTS = "fim-manifest(5)",
}

local function place(target)
  local name = target:match("^docs/([A-Z]+)%.md") or target:match("^([A-Z]+)%.md")
  if not name then return nil end
  return pages[name] or ("/usr/share/doc/ostrel-edr/" .. name .. ".md.gz")
end

function Link(link)
  local found = place(link.target)
  return found and pandoc.Strong(found) or link.content
end

function Code(code)
  local found = place(code.text)
  if found then return pandoc.Strong(found) end
  local example = code.text:match("^examples/(.*)")
  if example then return pandoc.Code("/usr/share/doc/ostrel-edr/examples/" .. example) end
end

-- A table is wider than a terminal: each row becomes an entry with its first cell as the term, and what stands in a column
-- behind the second says which one.
local function inlines(blocks) return pandoc.utils.blocks_to_inlines(blocks) end

function Table(whole)
  local simple = pandoc.utils.to_simple_table(whole)
  local entries = {}
  for _, row in ipairs(simple.rows) do
    local text = pandoc.List()
    for column = 2, #row do
      local cell = inlines(row[column])
      if #cell > 0 then
        if #text > 0 then text:extend({ pandoc.Str(";"), pandoc.Space() }) end
        if #row > 2 and #inlines(simple.headers[column]) > 0 then
          text:extend(inlines(simple.headers[column]))
          text:extend({ pandoc.Str(":"), pandoc.Space() })
        end
        text:extend(cell)
      end
    end
    table.insert(entries, { inlines(row[1]), { { pandoc.Plain(text) } } })
  end
  return pandoc.DefinitionList(entries)
end
