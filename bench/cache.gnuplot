# docs/bench/cache.svg from cache.dat: one panel for each kind of work.
set terminal svg size 960,720 font "sans-serif,13" background "white"
set output "cache.svg"
set multiplot layout 2,2 title "Nanoseconds an operation (lower is better)"
set logscale x
set logscale y
set datafile missing "-"
set xlabel "entries"
set format x "10^{%T}"
set grid
set key bottom right
do for [panel = 0:3] {
    set title word("add hit scattered miss", panel + 1)
    plot for [column = 2:9] "cache.dat" index panel using 1:column with linespoints \
        linewidth (column <= 3 ? 3 : 1.2) pointtype 7 pointsize 0.6 \
        title word("kspool batch abseil prefetched boost std dense sparse", column - 1)
}
unset multiplot
