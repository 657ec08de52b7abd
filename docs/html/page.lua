-- What pandoc does to each page: links lead to the HTML pages, the page's first heading is its title,
-- wide tables scroll by themselves, and the drawing of the rooms is drawn.

local function html_target(target)
    if target:match('^%a[%w+.-]*:') or target:match('^#') then
        return target
    end
    local path, anchor = target:match('^([^#]*)(.*)$')
    if path:match('%.md$') then
        return path:gsub('%.md$', '.html') .. anchor
    elseif path:match('/man/') or path:match('^man/') then
        return path .. '.html' .. anchor
    elseif path:match('%.svg$') or path:match('/$') then
        return target
    end
    return path .. '.txt' .. anchor -- a source file; make copies it
end

local title

local function draw(graph)
    local lines = {'digraph { rankdir=BT; bgcolor="transparent";',
        'node [shape=box fontname="sans-serif" fontsize=11 style=rounded]; edge [color="#888888"];'}
    for from, to in graph:gmatch('(%S+) %-%-> (%S+)') do
        table.insert(lines, string.format('"%s" -> "%s";', from, to))
    end
    local svg = pandoc.pipe('dot', {'-Tsvg'}, table.concat(lines, '\n') .. '}')
    return pandoc.RawBlock('html', '<div class="drawing">' .. svg:match('<svg.*') .. '</div>')
end

return {{
    Link = function(link)
        link.target = html_target(link.target)
        return link
    end,
    Table = function(block)
        for _, column in ipairs(block.colspecs) do
            column[2] = nil -- as wide as its contents, not as its source
        end
        return pandoc.Div(block, {class = 'table'})
    end,
    CodeBlock = function(block)
        return block.classes[1] == 'mermaid' and draw(block.text) or nil
    end,
    Header = function(header)
        title = title or pandoc.utils.stringify(header)
    end,
    Meta = function(meta)
        meta.pagetitle = title
        return meta
    end
}}
