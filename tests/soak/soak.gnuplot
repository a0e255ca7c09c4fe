# samples.csv of the current folder becomes soak.svg; `strategy` is its title.
set terminal svg size 800,640 font "sans-serif,12" background "white"
set output "soak.svg"
set datafile separator comma
set multiplot layout 3,1 title "Soak, ".strategy." strategy"
set lmargin 10
set rmargin 4
set grid
set key left top
set xrange [0:*]
set yrange [0:*]
set format x ""
set ylabel "MiB"
plot "samples.csv" using ($1/60):($2/1024) with lines title "resident memory", \
  "" using ($1/60):($8 == 1 ? $2/1024 : NaN) with points pointtype 7 pointsize 0.3 title "in quiet"
set ylabel "number"
plot "samples.csv" using ($1/60):4 with lines title "handles", \
  "" using ($1/60):6 with lines title "threads"
set format x "%g"
set xlabel "minutes"
plot "samples.csv" using ($1/60):9 with lines title "calls of WMI clients", \
  "" using ($1/60):11 with lines title "events received", \
  "" using ($1/60):12 with lines title "restarts of the device server"
unset multiplot
