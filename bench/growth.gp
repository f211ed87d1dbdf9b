# Draws how costs grow, from a table of thr_bench:
#     gnuplot -e "table='TABLE'" -e "svg='SVG'" bench/growth.gp
set terminal svg size 950,320 font "sans-serif,11" background "white"
set output svg

# The rows with a number between two texts: it, and the times of the library and of the raw calls.
rows(before, behind) = sprintf("< sed -En 's/^ *%s([0-9]+)%s +([0-9.]+) (.?s) +([0-9.]+) (.?s) " \
    ."+[0-9.]+ .*/\\1 \\2 \\3 \\4 \\5/p' '%s'", before, behind, table)
seconds(time, unit) = time * (unit eq "s" ? 1 : unit eq "ms" ? 1e-3 : unit eq "us" ? 1e-6 : 1e-9)

# The numbers stand at equal distances. `shown` turns seconds into what a panel shows.
draw = "plot data using 0:(shown(seconds($2, strcol(3)))):xtic(1) linestyle 1 title 'thr', " \
    ."data using 0:(shown(seconds($4, strcol(5)))) linestyle 2 title 'raw calls'"
set style data linespoints
set style line 1 linecolor "#1f5fa8" linewidth 2 pointtype 7 pointsize 0.5
set style line 2 linecolor "#d9822b" linewidth 2 pointtype 7 pointsize 0.5 dashtype 2
set grid ytics linetype 1 linewidth 1 linecolor "#dddddd"
set border 3
set tics nomirror
set key bottom right
set yrange [0:*]
set offsets 0.3, 0.3, 0, 0
set multiplot layout 1, 3

set title "Try of a writer among held reader files"
set xlabel "reader files"
set ylabel "ms"
data = rows("ip rw sem write try-lock, ", " readers")
shown(time) = 1e3 * time
eval draw

set title "Read-write semaphore, 1 of 8 writes"
set xlabel "threads"
set ylabel "us"
data = rows("rw sem, ", " threads, 1 of 8 writes")
shown(time) = 1e6 * time
eval draw

set title "Interprocess mutex, hand-overs"
set xlabel "processes"
set ylabel "per second"
data = rows("ip mutex hand-over, ", " processes")
shown(time) = 1 / time
eval draw
unset multiplot
