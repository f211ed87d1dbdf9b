# Draws the growth rows of thr_bench's JSON, which has a row on each line, as SVG.

function value(name,    text) {
    text = $0
    if (!sub(".*\"" name "\": \"?", "", text)) return ""
    sub("[\",}].*", "", text)
    return text
}

function panel(key, title, below, unit, scale, is_rate) {
    panels[++panel_count] = key
    titles[key] = title
    belows[key] = below
    units[key] = unit
    scales[key] = scale
    rates[key] = is_rate
}

# A round number that is not below.
function ceiling(number,    step) {
    step = 1
    while (step * 10 < number) step *= 10
    while (step > number) step /= 10
    return number <= step * 2 ? step * 2 : number <= step * 5 ? step * 5 : step * 10
}

function x_at(key, point) { return left + (point - 0.5) * width / points[key] }
function y_at(key, number) { return top + height - number * height / limit[key] }

function text(x, y, anchor, size, words) {
    printf "<text x=\"%d\" y=\"%d\" text-anchor=\"%s\" font-size=\"%d\">%s</text>\n",
           x, y, anchor, size, words
}

function line_of(key, who, colour, dash,    point, path) {
    for (point = 1; point <= points[key]; point++) {
        path = path sprintf(" %.1f,%.1f", x_at(key, point), y_at(key, data[key, who, point]))
        printf "<circle cx=\"%.1f\" cy=\"%.1f\" r=\"3\" fill=\"%s\"/>\n",
               x_at(key, point), y_at(key, data[key, who, point]), colour
    }
    printf "<polyline points=\"%s\" fill=\"none\" stroke=\"%s\" stroke-width=\"2\"%s/>\n",
           path, colour, dash
}

function draw(key,    point, tick, number) {
    limit[key] = ceiling(highest[key])
    text(left + width / 2, 24, "middle", 13, titles[key])
    for (tick = 0; tick <= 4; tick++) {
        number = limit[key] * tick / 4
        printf "<path d=\"M%d %.1fh%d\" stroke=\"#ddd\"/>\n", left, y_at(key, number), width
        text(left - 6, y_at(key, number) + 4, "end", 11, number)
    }
    text(left, top - 8, "middle", 11, units[key])
    for (point = 1; point <= points[key]; point++)
        text(x_at(key, point), top + height + 16, "middle", 11, xs[key, point])
    text(left + width / 2, top + height + 34, "middle", 11, belows[key])
    line_of(key, "raw", "#d9822b", " stroke-dasharray=\"6 4\"")
    line_of(key, "thr", "#1f5fa8", "")
}

BEGIN {
    width = 220; height = 170; top = 56; gap = 90
    panel("scan", "Try of a writer among held reader files", "reader files", "ms", 1e3, 0)
    panel("rw_sem", "Read-write semaphore, 1 of 8 writes", "threads", "us", 1e6, 0)
    panel("hand_over", "Hand-overs of the interprocess mutex", "processes", "per second", 1, 1)
}

/"series": "[a-z_]+"/ {
    key = value("series")
    point = ++points[key]
    xs[key, point] = value("x")
    for (who = 1; who <= 2; who++) {
        name = who == 1 ? "thr" : "raw"
        number = (rates[key] ? 1 / value(name) : value(name)) * scales[key]
        data[key, name, point] = number
        if (number > highest[key]) highest[key] = number
    }
}

END {
    total = panel_count * (width + gap) + 20
    printf "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%d\" height=\"310\" ", total
    printf "viewBox=\"0 0 %d 310\" font-family=\"sans-serif\">\n", total
    printf "<rect width=\"%d\" height=\"310\" fill=\"white\"/>\n", total
    for (panel_number = 1; panel_number <= panel_count; panel_number++) {
        left = 70 + (panel_number - 1) * (width + gap)
        if (points[panels[panel_number]]) draw(panels[panel_number])
    }
    print "<path d=\"M70 296h30\" stroke=\"#1f5fa8\" stroke-width=\"2\"/>"
    text(106, 300, "start", 12, "thr")
    print "<path d=\"M150 296h30\" stroke=\"#d9822b\" stroke-width=\"2\" stroke-dasharray=\"6 4\"/>"
    text(186, 300, "start", 12, "raw calls")
    print "</svg>"
}
