"""The benchmark's parts: processes, the systems compared, the measurements, the report."""
