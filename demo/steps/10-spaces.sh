show spacelist
