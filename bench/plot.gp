# The scaling of -export: processor time per MB beyond the start-up, and
# peak resident memory, over the size of agent.ini. Data: scaling.dat as
# bench/run.py writes it (size in MB of 2^20 bytes, ms per MB, peak MB).
#   gnuplot -e "data='build/bench/results/scaling.dat'; out='docs/performance-scaling.png'" bench/plot.gp
if (!exists("data")) data = 'build/bench/results/scaling.dat'
if (!exists("out")) out = 'docs/performance-scaling.png'

stats data using 2 nooutput name "T"

set terminal pngcairo size 900,520 font "DejaVu Sans,11" noenhanced
set output out
set title "zelipsconfig -export: processor time per MB of agent.ini, and peak memory"
set logscale x 10
set xlabel "agent.ini size (MB, log scale)"
set ylabel "processor time per MB beyond start-up (ms/MB)"
set y2label "peak resident memory (MB, log scale)"
set ytics nomirror
set y2tics
set logscale y2 10
set yrange [0:T_max * 1.6]
set y2range [1:1000]
set grid xtics ytics
set key bottom right box opaque
set xrange [0.03:80]
plot data using 1:2 with linespoints lw 2 pt 7 title "time per MB (left axis)", \
     data using 1:3 axes x1y2 with linespoints lw 2 pt 5 dt 2 title "peak memory (right axis)"
