"""The parts of bench/run: processes, the systems compared, the measures, stored results, report and plots."""
