tarnel_trace(stress_wrrdvr stress_basic_dtype stress_wrrdwr stress_derived stress_readmiss stress_miss
             stress_rand_off stress_march_rows stress_march_columns stress_crand)
