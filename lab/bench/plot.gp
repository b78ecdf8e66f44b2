# The plots of docs/performance.md, from a table of scripts/bench:
#   gnuplot -e "csv='build/figures/bench.csv'" lab/bench/plot.gp

set terminal svg size 720,360 font 'sans,12' background 'white'
set datafile separator ','
set logscale x
set format x '%.0s%c'
set xlabel 'loaded tasks'
set grid
set key bottom left

rows(figure) = sprintf("< grep ',%s,' %s", figure, csv)

set output 'docs/performance-runs.svg'
set ylabel 'runs a second'
set yrange [0:*]
plot rows('rate') using 1:3 with linespoints title 'koducron', \
     rows('floor rate') using 1:3 with linespoints dashtype 2 title 'floor'

set output 'docs/performance-memory.svg'
set ylabel 'resident bytes a task'
plot rows('bytes a task') using 1:3 with linespoints notitle

set output 'docs/performance-load.svg'
set ylabel 'seconds to load'
set logscale y
set yrange [*:*]
set key top left
plot rows('load') using 1:3 with linespoints title 'koducron', \
     rows('bare query') using 1:3 with linespoints dashtype 2 title 'bare query'
