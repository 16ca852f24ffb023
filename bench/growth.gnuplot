# docs/bench/growth.svg and bits.svg from grow-cache.dat and bits-cache.dat.
set terminal svg size 800,520 font "sans-serif,13" background "white"
set logscale y
set grid
set key outside right
set linetype 9 linecolor "gray40" linewidth 2
set linetype 10 linecolor "dark-orange" linewidth 2
set linetype 11 linecolor "brown" linewidth 2
set linetype cycle 11
set ylabel "nanoseconds an entry"
set output "growth.svg"
set logscale x
set format x "10^{%T}"
set xlabel "entries"
plot for [column = 2:12] "grow-cache.dat" using 1:(column(column) > 0 ? column(column) : NaN) \
    with linespoints pointtype 7 pointsize 0.5 title columnheader(column)
set output "bits.svg"
unset logscale x
set format x "%g"
set xlabel "bits"
plot for [column = 2:8] "bits-cache.dat" using 1:(column(column) > 0 ? column(column) : NaN) \
    with linespoints pointtype 7 pointsize 0.5 title columnheader(column)
